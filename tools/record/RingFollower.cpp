#include "RingFollower.h"

#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

#include "EndOfStream.h"
#include "RingRules.h"

namespace qel {
namespace {

constexpr std::chrono::milliseconds kCheckPeriod{50};

FollowResult ResultOf(const TapResult& result) {
    if (result.outcome == TapOutcome::Overrun) {
        return {FollowOutcome::Overrun, {}, {}};
    }
    const bool isEnd = IsEndOfStream({result.header, result.payload});
    return {isEnd ? FollowOutcome::EndOfStream : FollowOutcome::Packet, result.header,
            result.payload};
}

}  // namespace

RingFollower::RingFollower(std::string name, const Options& options, std::function<bool()> idle)
    : name_(std::move(name)), options_(options), idle_(std::move(idle)) {
    if (!Open(options_.start) && !options_.waitForRing) {
        throw std::runtime_error("there is no ring " + name_);
    }
}

/// An object that is too short has not been made in full.
bool RingFollower::Open(RingTap::Start start) {
    auto ring = RingFile::Open(name_);
    if (!ring || ring->Size() == 0) {
        return false;
    }
    pace_.emplace(ring->Size(), options_.poll);
    tap_.emplace(std::move(*ring), start);
    passed_ = 0;
    nextCheck_ = TapPace::Clock::now() + kCheckPeriod;
    return true;
}

std::optional<std::uint64_t> RingFollower::RingSize() const {
    return tap_ ? std::optional(tap_->Ring().Size()) : std::nullopt;
}

bool RingFollower::WaitForRing() {
    while (!tap_) {
        if (idle_()) {
            return false;
        }
        std::this_thread::sleep_for(TapPace::kLongest);
        (void)Open(RingTap::Start::Lap);  // of a new ring its first packet
    }
    return true;
}

FollowResult RingFollower::Next() {
    if (!WaitForRing()) {
        return {};
    }
    while (true) {
        const TapResult result = tap_->TryNext();
        if (result.outcome != TapOutcome::Nothing) {
            return ResultOf(result);
        }
        if (const auto end = CheckObject()) {
            return {*end, {}, {}};
        }
        if (Pause()) {
            return {};
        }
    }
}

/// True if asked to stop.
bool RingFollower::Pause() {
    if (idle_()) {
        return true;
    }
    const std::uint64_t passed = tap_->BytesPassed();
    if (passed != passed_) {
        pace_->Came(passed - passed_, TapPace::Clock::now());
        passed_ = passed;
    }
    std::this_thread::sleep_for(pace_->Next());
    return false;
}

/// Now and then, when nothing is left to be read: whether the object is still the ring's.
std::optional<FollowOutcome> RingFollower::CheckObject() {
    const auto now = TapPace::Clock::now();
    if (now < nextCheck_) {
        return std::nullopt;
    }
    nextCheck_ = now + kCheckPeriod;
    const struct stat status = tap_->Ring().StatusNow();
    const bool isCut = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0)) !=
                       tap_->Ring().Size() + kControlBlockSize;
    if (status.st_nlink != 0 && !isCut) {
        return std::nullopt;
    }
    tap_.reset();
    if (!options_.waitForNext && !Open(RingTap::Start::Lap)) {
        return FollowOutcome::Removed;
    }
    return WaitForRing() ? FollowOutcome::Remade : FollowOutcome::Stopped;
}

}  // namespace qel
