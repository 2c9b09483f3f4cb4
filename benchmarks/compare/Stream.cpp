// One writer, one reader.

#include <algorithm>

#include "Board.h"
#include "Clock.h"
#include "Measure.h"
#include "Processes.h"

namespace qel::bench {
namespace {

constexpr std::int64_t kWarmUp = 20'000'000;          // ns, at least
constexpr std::int64_t kCalibration = 40'000'000;     // ns
constexpr std::int64_t kLongestWarmUp = 200'000'000;  // ns, for those that need long for a lap
constexpr std::uint64_t kShortWarmUp = 8;             // messages, when their number is given
constexpr std::uint64_t kClockEvery = 16;             // messages, so that the clock costs little
constexpr std::uint64_t kFewest = 24;

/// What a process used between two points.
class Usage {
public:
    void ReportTo(Report& report) const {
        report.time = Now() - time_;
        report.cpu = CpuNow() - cpu_;
        report.allocations = AllocationsSoFar() - allocations_;
    }

private:
    std::uint64_t allocations_ = AllocationsSoFar();
    std::int64_t cpu_ = CpuNow();
    std::int64_t time_ = Now();
};

class Writer {
public:
    Writer(Sender& sender, const Cell& cell, const Plan& plan)
        : sender_(sender), source_(cell.size), cell_(cell), plan_(plan) {}

    void Run(Report& report) {
        const std::uint64_t count = plan_.marks.empty() ? WarmUp() : plan_.messages;
        start_ = Now();
        const Usage usage;
        Send(Part::First);
        for (std::uint64_t sent = 1; sent < count; ++sent) {
            Pace(sent);
            Send(Part::Middle);
        }
        Pace(count);
        Send(Part::Last);
        usage.ReportTo(report);
        report.messages = count;
    }

private:
    /// Goes round the ring once.
    /// @return how many messages to measure
    std::uint64_t WarmUp() {
        if (plan_.messages != 0 || plan_.rate != 0) {
            for (std::uint64_t sent = 0; sent < kShortWarmUp; ++sent) {
                Send(Part::WarmUp);
            }
            const double paced = std::max(1.0, plan_.rate * plan_.seconds);
            return plan_.messages != 0 ? plan_.messages : static_cast<std::uint64_t>(paced);
        }
        const std::uint64_t lap = cell_.ring / cell_.size;
        (void)SendUntil([&](std::int64_t elapsed) {
            return elapsed >= kLongestWarmUp || (elapsed >= kWarmUp && next_ >= lap);
        });
        const double each = SendUntil([](std::int64_t elapsed) { return elapsed >= kCalibration; });
        return std::max(kFewest, static_cast<std::uint64_t>(plan_.seconds * 1e9 / each));
    }

    /// @param isEnough  asked with the time so far
    /// @return ns of a message
    template <typename IsEnough>
    double SendUntil(const IsEnough& isEnough) {
        const std::uint64_t first = next_;
        const std::int64_t start = Now();
        std::int64_t elapsed = 0;
        while (!isEnough(elapsed)) {
            for (std::uint64_t sent = 0; sent < (cell_.size < 65536 ? kClockEvery : 1); ++sent) {
                Send(Part::WarmUp);
            }
            elapsed = Now() - start;
        }
        return static_cast<double>(elapsed) / static_cast<double>(next_ - first);
    }

    void Send(Part part) { sender_.Send(source_, {next_++, part}); }

    /// Messages behind the first have their times; without a rate, the last comes at the end.
    void Pace(std::uint64_t message) const {
        if (plan_.rate == 0) {
            return;
        }
        const auto due =
            start_ + static_cast<std::int64_t>(static_cast<double>(message) / plan_.rate * 1e9);
        const timespec until{due / 1'000'000'000, due % 1'000'000'000};
        (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    }

    Sender& sender_;
    Source source_;
    const Cell& cell_;
    const Plan& plan_;
    std::int64_t start_ = 0;
    std::uint64_t next_ = 0;
};

void Read(Receiver& receiver, const Cell& cell, const Plan& plan, Report& report) {
    Checker checker(cell.size, cell.readAll);
    auto mark = plan.marks.begin();
    const std::int64_t start = Now();
    Usage usage;
    for (Part part = Part::WarmUp; part != Part::Last;) {
        const Receiver::View view = receiver.Next();
        part = checker.Check(view.data, view.size);
        receiver.Release();
        if (part == Part::First) {
            usage = Usage();
            report.messages = checker.Received();
        }
        if (mark != plan.marks.end() && checker.Received() == *mark) {
            ++mark;
            report.marked[report.marks++] = Now() - start;
        }
    }
    usage.ReportTo(report);
    report.messages = checker.Received() - report.messages;
    report.received = checker.Received();
    report.lost = checker.Lost();
    report.wrong = checker.Wrong();
}

nlohmann::json JsonOf(const Cell& cell, Board& board, std::size_t readers) {
    const Report& writer = board.Of(0);
    const Report& reader = board.Of(readers);  // the last
    const auto messages = static_cast<double>(reader.messages);
    const double seconds = static_cast<double>(reader.time) / 1e9;
    nlohmann::json result{
        {"messages", reader.messages},
        {"received", reader.received},
        {"seconds", seconds},
        {"messages_per_second", messages / seconds},
        {"bytes_per_second", messages * static_cast<double>(cell.size) / seconds},
        {"writer_cpu_ns", static_cast<double>(writer.cpu) / static_cast<double>(writer.messages)},
        {"reader_cpu_ns", static_cast<double>(reader.cpu) / messages},
        {"writer_busy", static_cast<double>(writer.cpu) / static_cast<double>(writer.time)},
        {"reader_busy", static_cast<double>(reader.cpu) / static_cast<double>(reader.time)},
        {"allocations", writer.allocations + reader.allocations},
        {"writer_resident", writer.resident},
        {"reader_resident", reader.resident}};
    std::uint64_t lost = 0;
    std::uint64_t wrong = 0;
    double cpu = result["writer_cpu_ns"];
    for (std::size_t node = 1; node <= readers; ++node) {
        lost += board.Of(node).lost;
        wrong += board.Of(node).wrong;
        cpu += static_cast<double>(board.Of(node).cpu) / messages;
    }
    result["lost"] = lost;
    result["wrong"] = wrong;
    result["cpu_ns"] = cpu;
    for (std::size_t mark = 0; mark < reader.marks; ++mark) {
        result["marks_ns"].push_back(reader.marked[mark]);
    }
    return result;
}

void RunWriter(Transport& transport, const Cell& cell, const Plan& plan, Board& board) {
    const auto sender = transport.OpenSender(0);
    Writer writer(*sender, cell, plan);
    board.Meet();
    sender->AwaitPeer();
    board.Meet();
    writer.Run(board.Of(0));
    board.Of(0).resident = ResidentBesideFiles();
    board.Meet();  // what has been sent stays until it has been read
}

void RunReader(Transport& transport, unsigned which, const Cell& cell, const Plan& plan,
               Board& board) {
    const auto receiver = transport.OpenReceiver(which);
    board.Meet();
    receiver->AwaitPeer();
    board.Meet();
    Report& report = board.Of(which + 1);
    Read(*receiver, cell, plan, report);
    report.resident = ResidentBesideFiles();
    board.Meet();
}

}  // namespace

nlohmann::json MeasureStream(const Kind& kind, const Cell& cell, const Plan& plan) {
    const auto transport = kind.make(cell);
    const unsigned readers = transport->Readers();
    Board board(readers + 1);
    std::vector<NodeChain::Body> bodies;
    bodies.emplace_back([&] {
        RunWriter(*transport, cell, plan, board);
        return 0;
    });
    for (unsigned which = 0; which < readers; ++which) {
        bodies.emplace_back([&, which] {
            RunReader(*transport, which, cell, plan, board);
            return 0;
        });
    }
    RunPinned(bodies, plan.patience);
    return JsonOf(cell, board, readers);
}

}  // namespace qel::bench
