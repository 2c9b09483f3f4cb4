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
/// A node is woken by a post on its semaphore, whose value never exceeds one. Its neighbour posts
/// twice, before it hands a packet over and after: should it die in between, the first post has
/// made this node look every `kLongestWait` for a while. A plain neighbour posts nothing, so the
/// node also looks as often after it has found a packet without a post. Otherwise it looks every
/// `kLongestQuietWait`, since each look costs CPU and an idle stream should cost nothing.
///
/// Thread use: `Wake` and `SignalNext` by any thread; each ring, and the waiting, by one thread at
/// a time.
class StreamNode {
public:
    static constexpr std::chrono::microseconds kLongestWait{4000};
    static constexpr std::chrono::microseconds kLongestQuietWait{50000};
    static constexpr unsigned kLooksAfterPost = 25;
    static constexpr unsigned kLooksWithoutPost = 250;

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

    /// Wakes the node that this one hands its packets to; to be called before and after it does.
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
    bool wasPosted_ = false;                   // at the last wait
    unsigned shortWaits_ = kLooksWithoutPost;  // to come
};

}  // namespace qel
