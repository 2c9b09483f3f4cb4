#include "LiveView.h"

#include <chrono>
#include <utility>

#include "Collector.h"
#include "Page.h"
#include "Screen.h"

namespace qel {
namespace {

using Clock = Collector::Clock;

/// What is seen, and what the keys have made of it.
class View {
public:
    View(Collector& collector, Screen& screen, TopState state, const std::function<bool()>& stop)
        : collector_(collector), screen_(screen), state_(std::move(state)), stop_(stop) {}

    void Run(Clock::duration interval) {
        Update();
        for (Clock::time_point end = Clock::now() + interval; !IsOver(); end += interval) {
            if (end < Clock::now()) {
                end = Clock::now();  // it was stopped for a while
            }
            WatchUntil(end);
            Update();
        }
    }

private:
    [[nodiscard]] bool IsOver() const { return state_.quits || stop_() || Screen::IsGone(); }

    /// What is pressed takes effect at once.
    void WatchUntil(Clock::time_point end) {
        while (Clock::now() < end && !IsOver()) {
            collector_.WatchUntil(end, [](Clock::duration length) { return Screen::Wait(length); });
            while (const auto key = screen_.Read()) {
                Press(state_, *key, snapshot_);
            }
            if (Clock::now() < end) {
                Draw();
            }
        }
    }

    void Update() {
        Snapshot now = collector_.Take();
        if (!state_.isPaused) {
            snapshot_ = std::move(now);
        }
        Draw();
    }

    void Draw() {
        screen_.Paint(
            PageOf(snapshot_, state_, screen_.Width(), screen_.Height(), screen_.Characters()));
    }

    Collector& collector_;
    Screen& screen_;
    TopState state_;
    const std::function<bool()>& stop_;
    Snapshot snapshot_;
};

}  // namespace

void ShowLive(const LiveOptions& options, const std::function<bool()>& stop) {
    Collector collector(options.names, options.interval);
    TopState state;
    state.order = options.order;
    state.filter = options.filter;
    Screen screen;
    const std::chrono::duration<double> interval(options.interval);
    View(collector, screen, state, stop).Run(std::chrono::duration_cast<Clock::duration>(interval));
}

}  // namespace qel
