#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SharedPacketBufferIF.h"

namespace qel::test {

/// Packets of very different sizes, from none to a third of the ring, whose every byte follows from
/// the packet's number. The payloads lie ready in a pool, so that a soak spends its time in the
/// library.
class SoakPackets {
public:
    explicit SoakPackets(std::uint64_t ringSize);

    /// Writes packet `number`: plain, critical or gathered from parts. The last one says so.
    SMStatusCode Write(SharedPacketBufferIF& buffer, std::uint64_t number, bool isLast) const;

    /// True if `status`, got for packet `number`, means that it can be written later.
    [[nodiscard]] static bool IsForNow(SMStatusCode status, std::uint64_t number);

    /// What is wrong with a packet that should be packet `number`; empty if nothing is.
    [[nodiscard]] std::string Fault(const Packet& packet, std::uint64_t number) const;

    [[nodiscard]] static bool IsLast(const Packet& packet) {
        return packet.header.timestampUsec == kLast;
    }

private:
    static constexpr std::uint32_t kLast = 1;

    [[nodiscard]] ByteSpan Payload(std::uint64_t number) const;
    [[nodiscard]] std::uint64_t SizeOf(std::uint64_t draw) const;

    std::uint64_t largest_;
    std::vector<unsigned char> pool_;
};

}  // namespace qel::test
