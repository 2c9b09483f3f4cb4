#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>

#include "SharedValue.h"
#include "Traffic.h"

namespace qel::test {

/// A chain of processes on a ring, of which any can be killed while it works.
///
/// The writer writes numbered packets of all sizes as fast as there is room; every reader reads a
/// few ahead and releases in order, and checks that whole packets come in order.
class KillableChain {
public:
    explicit KillableChain(const RingImage& ring, std::uint64_t seed);
    ~KillableChain();
    KillableChain(const KillableChain&) = delete;
    KillableChain& operator=(const KillableChain&) = delete;

    /// Starts a process that is `node`, with nothing to go by but the ring and, as a writer, the
    /// number of its first packet. `resets`: the ring is a new one.
    void Start(std::uint8_t node, bool resets = false);
    /// Lets all who rest work.
    void Resume();
    /// Has `node` kill itself at work, after so many accesses to the ring from now.
    void KillAfter(std::uint8_t node, std::uint64_t accesses);
    /// Kills it whatever it does.
    void KillNow(std::uint8_t node);
    /// Lets all living nodes rest: the writer between two writes, then one reader after the other
    /// when it has released what there was to be read. False if one does not come to rest.
    bool Rest();

    [[nodiscard]] pid_t Process(std::uint8_t node) const { return processes_.at(node); }

    /// What survivors have complained of, empty if nothing.
    [[nodiscard]] std::string Complaints() const;
    /// True if the sink has read every packet.
    [[nodiscard]] bool AllDelivered() const;
    [[nodiscard]] std::int64_t Delivered() const { return board_->lastRead.at(Sink()).load(); }

private:
    struct Desk {
        sem_t rested;
        sem_t resumed;
        std::atomic<bool> isToRest{false};
        std::atomic<std::uint64_t> dieAfter{0};
        /// Packets that those who died here may have read and not told of.
        std::atomic<std::int64_t> unheard{0};
        std::atomic<const char*> complaint{nullptr};
    };
    struct Board {
        std::array<Desk, kMaxNodes> desks;
        std::atomic<std::int64_t> written{-1};  ///< number of the packet last written
        std::array<std::atomic<std::int64_t>, kMaxNodes> lastRead;
    };
    class Node;

    /// Waits for the end of a process.
    void Bury(std::uint8_t node);
    [[nodiscard]] std::uint8_t Sink() const { return ring_.Form().sink; }

    const RingImage& ring_;
    SharedValue<Board> board_;
    std::array<pid_t, kMaxNodes> processes_{};
    std::array<bool, kMaxNodes> rests_{};
    std::mt19937_64 seeds_;
};

}  // namespace qel::test
