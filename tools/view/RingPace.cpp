#include "RingPace.h"

#include <algorithm>
#include <utility>

namespace qel {
namespace {

constexpr double kGrowth = 4;
constexpr double kLateness = 2.5;      // gaps that last so much longer than asked for prove nothing
constexpr double kPersistence = 0.75;  // weight of the steps before the last one
constexpr unsigned kWindowSteps = 4;
constexpr std::chrono::microseconds kShortestWindow{50};
constexpr double kCloser = 3;
constexpr std::chrono::duration<double> kClosest{1e-7};  // what a look takes
constexpr std::chrono::microseconds kLongestLook{3000};

}  // namespace

void RingPace::Begin(Clock::time_point now) noexcept {
    last_ = now;
    isPause_ = false;
    suspect_ = Seconds(0);
    Open(now);
    next_ = now + kFirstGap;
}

void RingPace::Open(Clock::time_point now) noexcept {
    opened_ = windowBegan_ = resumed_ = now;
    steps_ = 0;
    gap_ = kFirstGap;
    bytes_ = 0;
    time_ = Seconds(0);
}

double RingPace::Speed() const noexcept {
    return time_.count() > 0 ? bytes_ / time_.count() : 0;
}

void RingPace::Suspect(Seconds length) noexcept {
    suspect_ = std::max(suspect_, length);
    seenTime_ = Seconds(0);
    seenBytes_ = 0;
}

/// Once as much time as the suspect step took has been seen in steps that are none, their speed
/// tells whether a node can have gone round in it.
/// @return false if one can
bool RingPace::Judge() noexcept {
    if (suspect_.count() == 0 || seenTime_ < suspect_) {
        return true;
    }
    const double speed = seenBytes_ / seenTime_.count();
    const bool isCleared = speed * suspect_.count() <= kMostOfRound * size_;
    suspect_ = Seconds(0);
    return isCleared;
}

RingPace::Step RingPace::Take(Clock::time_point now, std::uint64_t moved) noexcept {
    const Seconds length = now - last_;
    const auto bytes = static_cast<double>(moved);
    const bool wasPause = std::exchange(isPause_, false);
    last_ = now;
    Step step;
    step.isBlurred = wasPause && gap_ < kShortestSleep;
    step.isKnown = !wasPause && length <= care_.reopening && bytes <= kMostOfRound * size_ &&
                   Speed() * length.count() <= kMostOfRound * size_;
    const bool isOnset = step.isKnown && bytes_ < 1 && moved != 0 && gap_ > kShortestGap;
    const bool isSuspect = isOnset || (step.isKnown && length > gap_ * kLateness);
    if (step.isKnown) {
        bytes_ = bytes_ * kPersistence + bytes;
        time_ = time_ * kPersistence + length;
    }
    if (isSuspect) {
        Suspect(length);
    } else if (step.isKnown) {
        seenBytes_ += bytes;
        seenTime_ += length;
    }
    step.deniesLast = !Judge();
    ++steps_;
    if (wasPause) {
        windowBegan_ = resumed_ = now;
        steps_ = 0;
    }
    const bool wentTooFar = !wasPause && !step.isKnown;
    if (isOnset || now - opened_ > care_.reopening) {
        Open(now);
        next_ = now + kFirstGap;
    } else if (wentTooFar) {
        LookCloser(now);
    } else {
        Plan(now);
    }
    return step;
}

void RingPace::LookCloser(Clock::time_point now) noexcept {
    if (gap_ >= kShortestGap) {
        resumed_ = now;  // it did not look closely so far
    }
    windowBegan_ = now;
    steps_ = 0;
    bytes_ = 0;
    time_ = Seconds(0);
    gap_ = std::max(gap_ / kCloser, kClosest);
    if (now - resumed_ > kLongestLook) {
        Pause(now);
    } else {
        next_ = After(now, gap_);
    }
}

void RingPace::Plan(Clock::time_point now) noexcept {
    const double speed = Speed();
    const Seconds longest(care_.longestGap);
    const Seconds limit = speed > 0 ? Seconds(kPartOfRound * size_ / speed) : longest;
    gap_ = std::min({gap_ * kGrowth, limit, longest});
    const bool isTooOften = gap_ >= limit && limit < kShortestGap;
    if (isTooOften && steps_ >= kWindowSteps && now - windowBegan_ >= kShortestWindow) {
        Pause(now);
    } else {
        next_ = After(now, gap_);
    }
}

void RingPace::Pause(Clock::time_point now) noexcept {
    isPause_ = true;
    // For gaps too short to sleep, a core was kept busy.
    next_ = After(now, gap_ < kShortestSleep ? 4 * kPause : kPause);
}

RingPace::Clock::time_point RingPace::Soonest() const noexcept {
    constexpr double kEarliness = 0.4;
    const bool isCalm = !isPause_ && gap_ >= kShortestGap;
    const Seconds early = isCalm ? gap_ * kEarliness : Seconds(0);
    return next_ - std::chrono::duration_cast<Clock::duration>(early);
}

RingPace::Clock::time_point RingPace::After(Clock::time_point now, Seconds gap) noexcept {
    constexpr std::uint32_t kMultiplier = 1664525;
    constexpr std::uint32_t kIncrement = 1013904223;
    constexpr unsigned kShift = 24;
    constexpr double kSpread = 1.0 / 1024;  // of 256 values: up to a quarter
    random_ = random_ * kMultiplier + kIncrement;
    const Seconds varied = gap * (1 - kSpread * static_cast<double>(random_ >> kShift));
    return now + std::chrono::duration_cast<Clock::duration>(varied);
}

}  // namespace qel
