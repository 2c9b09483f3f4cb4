// What a hand-over from core to core costs at least: by a cache line, and by waking up a process.

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <vector>

#include "Board.h"
#include "Clock.h"
#include "Limits.h"
#include "Processes.h"
#include "Quantiles.h"
#include "RingBuffers.h"

namespace qel::bench {
namespace {

constexpr std::chrono::seconds kPatience{60};
constexpr std::uint64_t kWarmUp = 1000;
constexpr std::uint64_t kMost = 1'000'000;
constexpr std::size_t kApart = 256;  // further than what is fetched together

/// Runs `ask` in one process until the time is up, and `answer` in the other until it says false.
template <typename Ask, typename Answer>
nlohmann::json Measure(double seconds, const Ask& ask, const Answer& answer) {
    Board board(2);
    const auto asking = [&] {
        std::vector<std::uint64_t> times(kMost, 1);
        board.Meet();
        for (std::uint64_t trip = 0; trip < kWarmUp; ++trip) {
            ask(false);
        }
        const TickScale scale;
        const std::int64_t end = Now() + static_cast<std::int64_t>(seconds * 1e9);
        std::uint64_t trips = 0;
        while (trips < kMost && (trips % 64 != 0 || Now() < end)) {
            const std::uint64_t start = Ticks();
            ask(false);
            times[trips++] = Ticks() - start;
        }
        ask(true);
        times.resize(trips);
        board.Of(0).quantiles = QuantilesOf(times, scale.NanosecondsPerTick());
        board.Of(0).messages = trips;
        return 0;
    };
    const auto answering = [&] {
        board.Meet();
        while (answer()) {
        }
        return 0;
    };
    RunPinned({asking, answering}, kPatience);
    const Report& report = board.Of(0);
    return {{"messages", report.messages},
            {"p50_ns", report.quantiles[0]},
            {"p99_ns", report.quantiles[1]},
            {"p999_ns", report.quantiles[2]},
            {"mean_ns", report.quantiles[3]}};
}

using Word = std::atomic<std::uint64_t>;

constexpr std::uint64_t kEnd = ~std::uint64_t{0};

std::uint64_t AwaitChange(const Word& word, std::uint64_t old) noexcept {
    std::uint64_t now = word.load();
    while (now == old) {
        Relax();
        now = word.load();
    }
    return now;
}

}  // namespace

nlohmann::json MeasurePingPong(double seconds) {
    const SharedBytes memory(2 * kApart);
    Word& there = *new (memory.Data()) Word(0);
    Word& back = *new (memory.Data() + kApart) Word(0);
    std::uint64_t asked = 0;
    std::uint64_t seen = 0;
    const auto ask = [&](bool isLast) {
        const std::uint64_t before = asked;
        asked = isLast ? kEnd : asked + 1;
        there.store(asked);
        (void)AwaitChange(back, before);
    };
    const auto answer = [&] {
        seen = AwaitChange(there, seen);
        back.store(seen);
        return seen != kEnd;
    };
    return Measure(seconds, ask, answer);
}

nlohmann::json MeasureSemaphores(double seconds) {
    const SharedBytes memory(3 * kApart);
    auto* there = new (memory.Data()) sem_t;
    auto* back = new (memory.Data() + kApart) sem_t;
    auto& ended = *new (memory.Data() + 2 * kApart) std::atomic<bool>(false);
    (void)sem_init(there, 1, 0);
    (void)sem_init(back, 1, 0);
    const auto ask = [&](bool isLast) {
        ended.store(isLast);
        (void)sem_post(there);
        (void)sem_wait(back);
    };
    const auto answer = [&] {
        (void)sem_wait(there);
        const bool isLast = ended.load();
        (void)sem_post(back);
        return !isLast;
    };
    return Measure(seconds, ask, answer);
}

}  // namespace qel::bench
