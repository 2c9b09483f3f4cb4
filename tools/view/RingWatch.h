#pragma once

#include <functional>
#include <vector>

#include "RingFile.h"
#include "RingMeter.h"

namespace qel {

/// A ring's object and the meter that it is looked at with.
///
/// Thread use: one thread at a time uses one object.
class RingWatch {
public:
    /// Takes the first sample.
    explicit RingWatch(RingFile file, RingPace::Care care = RingPace::kUsualCare);
    RingWatch(const RingWatch&) = delete;
    RingWatch& operator=(const RingWatch&) = delete;

    [[nodiscard]] const RingFile& File() const noexcept { return file_; }

    /// False when the object was removed, made anew or resized: it is to be opened again.
    [[nodiscard]] bool IsCurrent() const;

    /// As `RingMeter::Expect`.
    void Expect(unsigned node) noexcept { meter_.Expect(node); }

    /// Takes a sample now.
    void Sample();

    /// As those of `RingMeter`.
    [[nodiscard]] RingMeter::Clock::time_point Next() const noexcept { return meter_.Next(); }
    [[nodiscard]] RingMeter::Clock::time_point Soonest() const noexcept { return meter_.Soonest(); }

    /// What the ring has done up to now since the last call, and begins anew.
    [[nodiscard]] RingFigures Figures();

private:
    RingFile file_;
    RingMeter meter_;
};

/// Returns early when a signal is handled.
void SleepFor(RingMeter::Clock::duration length);

/// Waits for so long, or less. True ends the watching.
using RingPause = std::function<bool(RingMeter::Clock::duration)>;

/// Samples all of them, each when it wants it, until `end`, or until `stop` is true: it is asked at
/// each wake-up, and sleeping ends early when a signal is handled.
void WatchUntil(const std::vector<RingWatch*>& watches, RingMeter::Clock::time_point end,
                const std::function<bool()>& stop);

/// The same, and `pause` is how to wait.
void WatchWith(const std::vector<RingWatch*>& watches, RingMeter::Clock::time_point end,
               const RingPause& pause);

}  // namespace qel
