#include "StreamNode.h"

#include "HandOnLeftovers.h"
#include "OpenRing.h"
#include "PopulateRing.h"

namespace qel {
namespace {

SharedBufferIF::BufferInfo RingInfo(const StreamOptions& options) {
    return {StreamNames(options.name).ring, options.size, options.node, options.sink,
            options.maxFrames};
}

SharedBufferIF::BufferInfo ControlInfo(const StreamOptions& options) {
    return {StreamNames(options.name).control, ControlRingSize(options.size), options.node,
            options.sink, 0};
}

SystemSemaphore OpenSemaphore(const StreamOptions& options, unsigned node) {
    return {StreamNames(options.name).WakeUp(node), SystemSemaphore::IfMissing::Create};
}

}  // namespace

StreamNode::StreamNode(const StreamOptions& options)
    : ring_(OpenRing(RingInfo(options))),
      claim_(options.name, options.node),
      control_(OpenRing(ControlInfo(options))),
      own_(OpenSemaphore(options, options.node)),
      next_(OpenSemaphore(options, options.sink ? 0U : options.node + 1U)),
      wakeUp_(options.wakeUp),
      idle_(WaitMode::Yield) {
    PopulateRing(*ring_, options.size);
}

std::uint64_t StreamNode::Recover(const StreamOptions& options) {
    // The records first, as always: they have to be there when their packets come.
    (void)HandOnLeftovers(*control_, ControlInfo(options));
    const std::uint64_t packets = HandOnLeftovers(*ring_, RingInfo(options));
    SignalNext();
    return packets;
}

void StreamNode::Wait() {
    if (wakeUp_ == WakeUp::Spin) {
        idle_.Idle();
        return;
    }
    wasPosted_ = own_.TakeFor(shortWaits_ > 0 ? kLongestWait : kLongestQuietWait);
    if (wasPosted_) {
        shortWaits_ = kLooksAfterPost;
    } else if (shortWaits_ > 0) {
        --shortWaits_;
    }
}

void StreamNode::WorkDone() noexcept {
    shortWaits_ = wasPosted_ ? 0 : kLooksWithoutPost;
    wasPosted_ = true;  // what follows at once needs no post of its own
}

}  // namespace qel
