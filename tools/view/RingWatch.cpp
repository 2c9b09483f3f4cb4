#include "RingWatch.h"

#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace qel {
namespace {

using Clock = RingMeter::Clock;

constexpr unsigned kTries = 20;  // to read fields that belong together

/// The usual 50 microseconds by which a sleep may last too long are much of a short gap.
void SleepExactly() {
    constexpr unsigned long kNanoseconds = 10'000;
    static const int isSet = prctl(PR_SET_TIMERSLACK, kNanoseconds);
    (void)isSet;
}

}  // namespace

RingWatch::RingWatch(RingFile file, RingPace::Care care)
    : file_(std::move(file)),
      meter_(
          file_.Size(), [this](std::uint64_t offset) { return file_.HeaderAt(offset); }, care) {
    Sample();
}

bool RingWatch::IsCurrent() const {
    struct stat named {};
    return stat(RingPath(file_.Name()).c_str(), &named) == 0 &&
           named.st_dev == file_.Status().st_dev && named.st_ino == file_.Status().st_ino &&
           named.st_size == file_.Status().st_size;
}

void RingWatch::Sample() {
    const auto stable = file_.StableFields(kTries);
    meter_.Take(stable ? *stable : file_.Fields(), stable.has_value(), Clock::now());
}

RingFigures RingWatch::Figures() {
    Sample();
    return meter_.Figures(Clock::now());
}

void SleepFor(Clock::duration length) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(length).count();
    constexpr std::int64_t kSecond = 1'000'000'000;
    const timespec time{nanoseconds / kSecond, nanoseconds % kSecond};
    (void)nanosleep(&time, nullptr);
}

void WatchUntil(const std::vector<RingWatch*>& watches, Clock::time_point end,
                const std::function<bool()>& stop) {
    WatchWith(watches, end, [&stop](Clock::duration length) {
        if (stop()) {
            return true;
        }
        SleepFor(length);
        return stop();
    });
}

void WatchWith(const std::vector<RingWatch*>& watches, Clock::time_point end,
               const RingPause& pause) {
    SleepExactly();
    Clock::time_point next = Clock::now();
    for (bool isStopped = false; !isStopped;) {
        const Clock::time_point now = Clock::now();
        const bool isAnyDue = next <= now;
        next = end;
        for (RingWatch* const watch : watches) {
            if (isAnyDue && watch->Soonest() <= now) {
                watch->Sample();
            }
            next = std::min(next, watch->Next());
        }
        if (now >= end) {
            return;
        }
        const Clock::duration left = next - Clock::now();
        if (left >= RingPace::kShortestSleep) {
            isStopped = pause(left);
        }
    }
}

}  // namespace qel
