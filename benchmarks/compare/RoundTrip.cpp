// A message there and the same message back, one at a time.

#include <algorithm>
#include <stdexcept>

#include "Board.h"
#include "Clock.h"
#include "Measure.h"
#include "Processes.h"
#include "Quantiles.h"

namespace qel::bench {
namespace {

constexpr std::int64_t kWarmUp = 30'000'000;  // ns
constexpr std::uint64_t kShortWarmUp = 8;
constexpr std::uint64_t kFewest = 8;
constexpr std::uint64_t kMost = 1'000'000;

class Asker {
public:
    Asker(Sender& sender, Receiver& receiver, const Cell& cell)
        : sender_(sender),
          receiver_(receiver),
          source_(cell.size),
          checker_(cell.size, cell.readAll) {}

    void Run(const Plan& plan, Report& report) {
        const std::uint64_t count = WarmUp(plan);
        std::vector<std::uint64_t> times(count, 1);
        const TickScale scale;
        for (std::uint64_t trip = 0; trip < count; ++trip) {
            const std::uint64_t start = Ticks();
            Ask(trip + 1 == count ? Part::Last : Part::Middle);
            times[trip] = Ticks() - start;
        }
        report.quantiles = QuantilesOf(times, scale.NanosecondsPerTick());
        report.messages = count;
        report.received = checker_.Received();
        report.lost = checker_.Lost();
        report.wrong = checker_.Wrong();
    }

private:
    std::uint64_t WarmUp(const Plan& plan) {
        const std::int64_t start = Now();
        const bool isShort = plan.messages != 0;
        while (isShort ? next_ < kShortWarmUp : Now() - start < kWarmUp) {
            Ask(Part::WarmUp);
        }
        if (isShort) {
            return plan.messages;
        }
        const double each = static_cast<double>(Now() - start) / static_cast<double>(next_);
        return std::clamp(static_cast<std::uint64_t>(plan.seconds * 1e9 / each), kFewest, kMost);
    }

    void Ask(Part part) {
        sender_.Send(source_, {next_++, part});
        const Receiver::View view = receiver_.Next();
        (void)checker_.Check(view.data, view.size);
        receiver_.Release();
    }

    Sender& sender_;
    Receiver& receiver_;
    Source source_;
    Checker checker_;
    std::uint64_t next_ = 0;
};

void Answer(Sender& sender, Receiver& receiver, const Cell& cell, Report& report) {
    Source source(cell.size);
    Checker checker(cell.size, cell.readAll);
    for (Part part = Part::WarmUp; part != Part::Last;) {
        const Receiver::View view = receiver.Next();
        part = checker.Check(view.data, view.size);
        receiver.Release();
        sender.Send(source, {checker.Expected() - 1, part});
    }
    report.lost = checker.Lost();
    report.wrong = checker.Wrong();
}

}  // namespace

nlohmann::json MeasureRoundTrip(const Kind& kind, const Cell& cell, const Plan& plan) {
    Board board(2);
    const auto transport = kind.make(cell);
    const auto ask = [&] {
        const auto sender = transport->OpenSender(0);
        const auto receiver = transport->OpenReceiver(1);
        board.Meet();
        sender->AwaitPeer();
        receiver->AwaitPeer();
        board.Meet();
        Asker(*sender, *receiver, cell).Run(plan, board.Of(0));
        board.Meet();
        return 0;
    };
    const auto answer = [&] {
        const auto receiver = transport->OpenReceiver(0);
        const auto sender = transport->OpenSender(1);
        board.Meet();
        receiver->AwaitPeer();
        sender->AwaitPeer();
        board.Meet();
        Answer(*sender, *receiver, cell, board.Of(1));
        board.Meet();
        return 0;
    };
    RunPinned({ask, answer}, plan.patience);
    const Report& report = board.Of(0);
    return {{"messages", report.messages},
            {"received", report.received},
            {"lost", report.lost + board.Of(1).lost},
            {"wrong", report.wrong + board.Of(1).wrong},
            {"p50_ns", report.quantiles[0]},
            {"p99_ns", report.quantiles[1]},
            {"p999_ns", report.quantiles[2]},
            {"mean_ns", report.quantiles[3]}};
}

}  // namespace qel::bench
