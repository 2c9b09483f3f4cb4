#include "Pipeline.h"

#include <fmt/format.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Files.h"
#include "ForkShared.h"
#include "NodeChain.h"
#include "OpenRing.h"
#include "Progress.h"
#include "Report.h"
#include "RingError.h"
#include "RingObject.h"
#include "Signals.h"
#include "Stages.h"
#include "Text.h"

namespace qel {
namespace {

constexpr std::size_t kMostNodes = 5;

/// What the parent and the nodes share.
struct Board {
    std::array<StageCounters, kMostNodes> nodes;
    std::atomic<bool> stopCutting{false};
};

/// One run of a pipeline, from the checked arguments on.
class Run {
public:
    explicit Run(const PipelineOptions& options)
        : options_(options), input_(options.input), output_(options.output) {
        input_.RequireRegular();
        output_.RequireFile();
        output_.RequireOtherThan(input_);
    }

    PipelineReport Execute();

    [[nodiscard]] int ExitStatus(const PipelineReport& report) const;

private:
    /// The signal that ended the run before its time, or 0.
    [[nodiscard]] static int InterruptedBy() { return Signals::First(); }
    [[nodiscard]] bool IsSink(std::size_t node) const { return node + 1 == options_.nodes; }
    [[nodiscard]] std::unique_ptr<RingObject> MakeRing() const;
    int LiveAs(std::size_t node) noexcept;
    StageEnd RunStage(std::size_t node);
    void Watch(NodeChain& chain);
    void TakeExit(const NodeExit& end, const NodeChain& chain);
    void Verify(PipelineReport& report) const;

    const PipelineOptions& options_;
    InputFile input_;
    OutputFile output_;
    ForkShared<Board> board_;
    std::string error_;    // why the run failed, from the first node that did
    bool killed_ = false;  // the nodes were, by this process
    bool gaveUp_ = false;  // at the user's second request
};

std::unique_ptr<RingObject> Run::MakeRing() const {
    const RingOptions& ring = options_.ring;
    try {
        auto object = std::make_unique<RingObject>(ring.name, ring.size);
        (void)OpenRing(ring.Info(0, false));  // initialised before any node comes
        return object;
    } catch (const RingError& failure) {
        if (failure.Errno() == EEXIST) {
            throw UsageError(fmt::format("{}; remove /dev/shm/{}.shm if nobody uses it",
                                         failure.what(), ring.name));
        }
        throw;
    }
}

StageEnd Run::RunStage(std::size_t node) {
    const auto index = static_cast<std::uint8_t>(node);
    const auto buffer = OpenStage(options_.ring, index, IsSink(node));
    // A node of a pipeline ends with the stream or is killed; only the producer is asked to stop.
    const StageStops stops{[this] { return board_->stopCutting.load(); }, [] { return false; }};
    StageCounters& counters = board_->nodes[node];
    if (node == 0) {
        return RunProducer(*buffer, options_.ring, input_, options_.packetSize, stops, counters);
    }
    return RunReader(*buffer, options_.ring, IsSink(node) ? &output_ : nullptr, stops, counters);
}

int Run::LiveAs(std::size_t node) noexcept {
    (void)prctl(PR_SET_NAME, fmt::format("qev-node-{}", node).c_str());
    try {
        (void)RunStage(node);
        return 0;
    } catch (const std::exception& failure) {
        auto& slot = board_->nodes[node].error;
        const std::string text = OneLine(failure.what());
        text.copy(slot.data(), slot.size() - 1);  // the rest is zero already
        return kExitFailure;
    }
}

void Run::TakeExit(const NodeExit& end, const NodeChain& chain) {
    if (end.Succeeded() || killed_) {
        return;
    }
    const std::string text = board_->nodes[end.node].error.data();
    error_ = text.empty() ? fmt::format("node {} (process {}) {}; the others were stopped",
                                        end.node, end.pid, end.Text())
                          : fmt::format("node {}: {}", end.node, text);
    killed_ = true;
    chain.Kill(SIGKILL);
}

void Run::Watch(NodeChain& chain) {
    Progress progress(board_->nodes.data(), options_.nodes, options_.ring.size);
    while (chain.Running() != 0) {
        if (const auto end = chain.WaitForExit(Progress::kPeriod)) {
            TakeExit(*end, chain);
        }
        if (Signals::Any()) {
            board_->stopCutting = true;
        }
        if (Signals::Count() > 1 && !killed_) {
            error_ = "interrupted twice: the nodes were killed";
            gaveUp_ = killed_ = true;
            chain.Kill(SIGKILL);
        }
        progress.Draw();
    }
    progress.Clear();
}

/// True unless any node counted or saw something else than the first.
bool NodesAgree(const std::vector<StageReport>& nodes) {
    return std::all_of(nodes.begin(), nodes.end(), [&](const StageReport& node) {
        return node.packets == nodes.front().packets && node.bytes == nodes.front().bytes &&
               node.checksum == nodes.front().checksum;
    });
}

void Run::Verify(PipelineReport& report) const {
    if (!error_.empty()) {
        report.status = "failed";
        report.error = error_;
        return;
    }
    const InputFile written(output_.Path());
    const std::uint64_t length = written.Length();
    const bool whole = length == input_.Length();
    report.verified = length == report.bytes && (whole || InterruptedBy() != 0) &&
                      NodesAgree(report.nodes) && SameContent(input_, written, length);
    report.status = InterruptedBy() != 0 ? "interrupted" : "ok";
    if (!report.verified) {
        report.status = "failed";
        report.error = fmt::format("{} is not what went in", output_.Path());
    }
}

PipelineReport Run::Execute() {
    PipelineReport report;
    report.name = options_.ring.name;
    report.size = options_.ring.size;
    report.packetSize = options_.packetSize;
    const std::unique_ptr<RingObject> ring = MakeRing();
    output_.Begin();

    const auto start = std::chrono::steady_clock::now();
    {
        std::vector<NodeChain::Body> bodies;
        for (std::size_t node = 0; node < options_.nodes; ++node) {
            bodies.emplace_back([this, node] { return LiveAs(node); });
        }
        NodeChain chain(bodies);
        Watch(chain);
    }
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (std::size_t node = 0; node < options_.nodes; ++node) {
        report.nodes.push_back(ReportOf(board_->nodes[node]));
    }
    report.bytes = report.nodes.back().bytes;
    ring->Remove();
    report.removed = !RingObject::FindSize(report.name);
    Verify(report);
    return report;
}

int Run::ExitStatus(const PipelineReport& report) const {
    const bool failed = report.status == "failed" || !report.removed;
    if (failed && !gaveUp_) {
        return kExitFailure;
    }
    return InterruptedBy() != 0 ? ExitInterrupted(InterruptedBy()) : 0;
}

}  // namespace

int RunPipeline(const PipelineOptions& options) {
    RequireRing(options.ring);
    RequirePacketFits(options.packetSize, options.ring.size);
    Run run(options);
    Signals::Catch();
    const PipelineReport report = run.Execute();
    const bool failed = report.status == "failed";
    if (failed) {
        (void)std::fprintf(stderr, "qev pipeline: %s\n", report.error.c_str());
    }
    if (options.json) {
        Print(JsonOf(report));
    } else if (!failed) {
        Print(TextOf(report));
    }
    return run.ExitStatus(report);
}

}  // namespace qel
