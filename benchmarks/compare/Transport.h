#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Message.h"

namespace qel::bench {

/// The cell that is measured.
struct Cell {
    std::size_t size = 64;  ///< bytes of a message
    std::uint64_t ring =
        64 << 20;          ///< bytes of shared memory, for transports that let it be chosen
    bool readAll = false;  ///< the reader reads a byte of each cache line
    bool populate = true;  ///< the ring's pages are made present beforehand
};

/// The writing end of a channel. One thread uses it.
class Sender {
public:
    Sender() = default;
    virtual ~Sender() = default;
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    /// Waits until the reader is connected, where the transport would lose messages before.
    virtual void AwaitPeer() {}

    /// Sends a message; waits for room.
    virtual void Send(Source& source, Stamp stamp) = 0;
};

/// The reading end of a channel. One thread uses it.
class Receiver {
public:
    struct View {
        const unsigned char* data;
        std::size_t size;
    };

    Receiver() = default;
    virtual ~Receiver() = default;
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// As `Sender::AwaitPeer`.
    virtual void AwaitPeer() {}

    /// Waits for the next message. It stays until `Release`.
    virtual View Next() = 0;

    /// Gives the message's memory back.
    virtual void Release() = 0;
};

/// A way from one process to another. It is made by the parent of both, which must not do more with
/// it than a forked process can stand: no library of a peer is called before the ends are opened.
class Transport {
public:
    Transport() = default;
    virtual ~Transport() = default;  ///< removes what the processes leave, also after they crashed
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    /// How many processes read each message, one behind the other.
    [[nodiscard]] virtual unsigned Readers() const { return 1; }

    /// @param channel  0, or 1 for the way back; where there are several readers, which of them
    [[nodiscard]] virtual std::unique_ptr<Sender> OpenSender(unsigned channel) = 0;
    [[nodiscard]] virtual std::unique_ptr<Receiver> OpenReceiver(unsigned channel) = 0;
};

/// A transport that this program offers.
struct Kind {
    std::string name;
    std::function<std::unique_ptr<Transport>(const Cell&)> make;
    std::function<std::optional<std::string>(const Cell&)> refusal;  ///< why it cannot carry a cell
};

/// Each program of the comparison defines its own.
[[nodiscard]] std::vector<Kind> Kinds();

[[nodiscard]] inline std::optional<std::string> CarriesAll(const Cell& /*cell*/) {
    return std::nullopt;
}

/// A name that no other run uses.
[[nodiscard]] std::string UniqueName(unsigned channel);

}  // namespace qel::bench
