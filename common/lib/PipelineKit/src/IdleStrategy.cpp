#include "IdleStrategy.h"

#include <algorithm>
#include <thread>

namespace qel {
namespace {

/// Tells the core that this is a waiting loop, which leaves more of it to a sibling thread.
void SpinOnce() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

}  // namespace

IdleStrategy::Pause IdleStrategy::NextPause() noexcept {
    using Kind = Pause::Kind;
    constexpr std::chrono::microseconds kNone{0};
    if (mode_ == WaitMode::Spin) {
        return {Kind::Spin, kNone};
    }
    if (mode_ == WaitMode::Yield) {
        return {Kind::Yield, kNone};
    }
    if (mode_ == WaitMode::Adaptive && rounds_ < kSpins + kYields) {
        return {rounds_++ < kSpins ? Kind::Spin : Kind::Yield, kNone};
    }
    const std::chrono::microseconds sleep = nextSleep_;
    nextSleep_ = std::min(sleep * 2, kLongestSleep);
    return {Kind::Sleep, sleep};
}

void IdleStrategy::Idle() {
    const Pause pause = NextPause();
    switch (pause.kind) {
        case Pause::Kind::Spin:
            SpinOnce();
            break;
        case Pause::Kind::Yield:
            std::this_thread::yield();
            break;
        case Pause::Kind::Sleep:
            std::this_thread::sleep_for(pause.sleep);
            break;
    }
}

void IdleStrategy::Reset() noexcept {
    rounds_ = 0;
    nextSleep_ = kShortestSleep;
}

}  // namespace qel
