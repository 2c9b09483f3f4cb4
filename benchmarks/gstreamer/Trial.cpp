#include "Trial.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Board.h"
#include "NodeChain.h"
#include "Reader.h"
#include "Transports.h"
#include "Writer.h"

namespace qel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLook{500};
constexpr std::chrono::seconds kPatience{120};  // beyond what sending takes by the clock

/// Removes the transport's objects, also after a failure; the processes must have ended.
class Remover {
public:
    Remover(Transport& transport, Board& board) : transport_(transport), board_(board) {}
    ~Remover() { transport_.Remove(board_.Get().writerPid); }
    Remover(const Remover&) = delete;
    Remover& operator=(const Remover&) = delete;

private:
    Transport& transport_;
    Board& board_;
};

std::chrono::seconds TimeOf(const Plan& plan) {
    const double sending = static_cast<double>(plan.frames) / static_cast<double>(plan.stream.rate);
    return std::chrono::seconds(std::lround(sending + plan.idleSeconds)) + kPatience;
}

void AwaitProcesses(NodeChain& chain, const Plan& plan, const std::function<bool()>& stop) {
    const auto deadline = Clock::now() + TimeOf(plan);
    while (chain.Running() != 0) {
        const auto exit = chain.WaitForExit(kLook);
        if (exit && !exit->Succeeded()) {
            throw std::runtime_error(
                fmt::format("the {} {}", exit->node == 0 ? "writer" : "reader", exit->Text()));
        }
        if (stop()) {
            throw std::runtime_error("interrupted");
        }
        if (Clock::now() > deadline) {
            throw std::runtime_error("writer and reader do not end");
        }
    }
}

/// In µs; the smallest value that `share` of all do not exceed.
double Quantile(const std::vector<std::int64_t>& sorted, double share) {
    if (sorted.empty()) {
        return 0;
    }
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return static_cast<double>(sorted[rank == 0 ? 0 : rank - 1]) / 1e3;
}

double Ratio(double value, double of) {
    return of > 0 ? value / of : 0;
}

TrialResult ResultOf(const Plan& plan, const Transport& transport, Board& board) {
    const Board::Content& content = board.Get();
    std::vector<std::int64_t> latencies(board.Latencies(),
                                        board.Latencies() + content.latencyCount);
    std::sort(latencies.begin(), latencies.end());
    const auto frames = static_cast<double>(plan.frames);
    const auto measured = static_cast<double>(plan.Measured());
    const auto received = static_cast<double>(content.latencyCount);
    const auto counted = [frames](const Figures& figures) {
        return static_cast<double>(figures.copies) / frames;
    };

    TrialResult result{};
    result.frames = plan.frames;
    result.lost = plan.frames - content.received;
    result.wrong = content.wrong;
    result.framesPerSecond =
        Ratio(received * 1e9, static_cast<double>(content.reader.measured.time));
    result.writerCopies = transport.WriterCopies() + counted(content.writer);
    const double outside =
        Ratio(static_cast<double>(content.copied), static_cast<double>(content.seen));
    // Both ways to see a copy: what the element counts, and where the frames lie.
    result.readerCopies = std::max(outside * transport.ReaderCopies(), counted(content.reader));
    result.writerCpu = Ratio(static_cast<double>(content.writer.measured.cpu) / 1e6, measured);
    result.readerCpu = Ratio(static_cast<double>(content.reader.measured.cpu) / 1e6, received);
    const auto idle = [](const Figures& figures) {
        return 100 *
               Ratio(static_cast<double>(figures.idle.cpu), static_cast<double>(figures.idle.time));
    };
    result.writerIdleCpu = idle(content.writer);
    result.readerIdleCpu = idle(content.reader);
    result.latency50 = Quantile(latencies, 0.50);
    result.latency95 = Quantile(latencies, 0.95);
    result.latency99 = Quantile(latencies, 0.99);
    return result;
}

}  // namespace

TrialResult RunTrial(const std::string& kind, const Plan& plan, const std::function<bool()>& stop) {
    static unsigned trials = 0;
    const auto transport =
        MakeTransport(kind, fmt::format("bench-{}-{}", getpid(), trials++), plan);
    Board board(plan.Measured());
    const Remover remover(*transport, board);
    NodeChain chain({[&] { return RunWriter(plan, *transport, board); },
                     [&] { return RunReader(plan, *transport, board); }});
    AwaitProcesses(chain, plan, stop);
    return ResultOf(plan, *transport, board);
}

}  // namespace qel
