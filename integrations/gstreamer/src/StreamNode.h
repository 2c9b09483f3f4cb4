#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "IdleStrategy.h"
#include "NodeClaim.h"
#include "SharedPacketBufferIF.h"
#include "StreamNames.h"
#include "SystemSemaphore.h"

namespace qel {

/// How an element waits for packets or for room.
enum class WakeUp {
    Semaphore,  ///< sleeps until the node that has something for it posts
    Spin,       ///< looks again and again, and gives way to others in between
};

/// A stream and the element's place in it.
struct StreamOptions {
    std::string name;
    std::uint64_t size;  ///< bytes of the ring
    std::uint8_t node;
    bool sink;
    std::uint32_t maxFrames;  ///< packet limit, 0: none
    WakeUp wakeUp;
};

/// One node of a stream: its rings, the claim on them and the semaphores.
///
/// A node is woken by a post on its semaphore, whose value never exceeds one. A neighbour can die
/// between its hand-over and its post, and a plain one posts nothing, so every wait is bounded: by
/// `kLongestWait` next to a neighbour that is not known to post, by `kLongestQuietWait` next to one
/// that does, or when nothing has come for `kWaitsUntilQuiet` waits. Each look costs CPU: a stream
/// that is idle or slow should cost next to nothing.
///
/// Thread use: `Wake` and `SignalNext` by any thread; each ring, and the waiting, by one thread at
/// a time.
class StreamNode {
public:
    static constexpr std::chrono::microseconds kLongestWait{4000};
    static constexpr std::chrono::microseconds kLongestQuietWait{10000};
    static constexpr unsigned kWaitsUntilQuiet = 250;

    /// Opens all.
    /// @throws NodeTaken if another process or element is this node
    /// @throws std::invalid_argument, RingError or std::runtime_error as OpenRing, and if a
    ///         semaphore cannot be opened
    explicit StreamNode(const StreamOptions& options);

    /// Hands on what a killed predecessor at this node, a reader, had read.
    /// @return packets handed on, fillers included
    /// @throws as HandOnLeftovers
    std::uint64_t Recover(const StreamOptions& options);

    [[nodiscard]] SharedPacketBufferIF& Ring() const noexcept { return *ring_; }
    [[nodiscard]] SharedPacketBufferIF& Control() const noexcept { return *control_; }

    /// Wakes the node that this one hands its packets to.
    void SignalNext() const { next_.Signal(); }

    /// Ends this node's own wait.
    void Wake() const { own_.Signal(); }

    /// Waits for a post or a call of `Wake`, no longer than said above.
    void Wait();

    /// To be called when there was something.
    void WorkDone() noexcept;

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
    NodeClaim claim_;
    std::unique_ptr<SharedPacketBufferIF> control_;
    SystemSemaphore own_;
    SystemSemaphore next_;
    WakeUp wakeUp_;
    IdleStrategy idle_;
    bool neighbourPosts_ = false;
    bool timedOut_ = false;  // the last wait
    unsigned vainWaits_ = 0;
};

}  // namespace qel
