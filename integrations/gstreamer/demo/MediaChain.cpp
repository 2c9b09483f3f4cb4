#include "MediaChain.h"

#include <fmt/format.h>
#include <gst/gst.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Files.h"
#include "ForkShared.h"
#include "NodeChain.h"
#include "NodePipeline.h"
#include "Picture.h"
#include "Signals.h"
#include "StreamObjects.h"
#include "Text.h"

namespace qel {
namespace {

/// One run of a chain, from the checked arguments on. This process never starts GStreamer, whose
/// threads would not survive the forks.
class Run {
public:
    explicit Run(const ChainOptions& options)
        : options_(options),
          plan_(options.raw ? PlanDrawing(options) : PlanPlaying(options)),
          output_(options.output) {
        output_.RequireFile();
        if (!options.raw) {
            const InputFile input(options.input);
            input.RequireRegular();
            output_.RequireOtherThan(input);
        }
    }

    /// @throws std::runtime_error when a node failed or the nodes do not agree
    void Execute();

private:
    int LiveAs(std::size_t node) noexcept;
    void RunNode(std::size_t node);
    void Watch(NodeChain& chain);
    void TakeExit(const NodeExit& end, const NodeChain& chain);
    void RequireAgreement() const;
    void RequireDrawings() const;

    const ChainOptions& options_;
    ChainPlan plan_;
    OutputFile output_;
    ForkShared<ChainBoard> board_;
    std::string error_;  // why the chain was ended, from the first node that failed
};

void Run::RunNode(std::size_t node) {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
        const std::string text = error == nullptr ? "cannot start GStreamer" : error->message;
        g_clear_error(&error);
        throw std::runtime_error(text);
    }
    const StagePlan& stage = plan_[node];
    NodeCounters& counters = board_->nodes[node];
    const auto observer = stage.observe(counters);
    NodePipeline pipeline(stage.pipeline, options_.ring, counters, observer.get());
    if (!stage.file.empty()) {
        pipeline.SetFile(stage.file);
    }
    if (stage.demultiplexes) {
        pipeline.LinkVideo();
    }
    const bool isSource = node == 0;
    // The format of the frames goes with the source: it stays until the last node is through.
    pipeline.Run({[&] { return isSource && board_->endStream.load(); },
                  [&] { return !isSource || board_->drained.load(); }});
}

int Run::LiveAs(std::size_t node) noexcept {
    (void)prctl(PR_SET_NAME, fmt::format("qev-node-{}", node).c_str());
    try {
        RunNode(node);
        return 0;
    } catch (const std::exception& failure) {
        auto& slot = board_->nodes[node].error;
        const std::string text = OneLine(failure.what());
        text.copy(slot.data(), slot.size() - 1);  // the rest is zero already
        return kExitFailure;
    }
}

void Run::TakeExit(const NodeExit& end, const NodeChain& chain) {
    if (end.Succeeded()) {
        if (end.node + 1 == kChainLength) {
            board_->drained = true;
        }
        return;
    }
    if (!error_.empty()) {
        return;  // ended by this process
    }
    const std::string text = board_->nodes[end.node].error.data();
    error_ = fmt::format("node {} ({}): {} (the others were stopped)", end.node,
                         plan_[end.node].role, text.empty() ? end.Text() : text);
    chain.Kill(SIGKILL);
}

void Run::Watch(NodeChain& chain) {
    Picture picture(plan_, board_->nodes);
    while (chain.Running() != 0) {
        if (const auto end = chain.WaitForExit(Picture::kPeriod)) {
            TakeExit(*end, chain);
        }
        if (Signals::Count() > 0) {
            board_->endStream = true;
        }
        if (Signals::Count() > 1 && error_.empty()) {
            error_ = "interrupted twice: the nodes were killed";
            chain.Kill(SIGKILL);
        }
        picture.Draw();
    }
    picture.Finish();
}

void Run::RequireAgreement() const {
    const NodeCounters& source = board_->nodes.front();
    for (std::size_t index = 1; index < kChainLength; ++index) {
        const NodeCounters& node = board_->nodes[index];
        if (node.frames != source.frames || node.bytes != source.bytes) {
            throw std::runtime_error(
                fmt::format("node {} saw {} frames of {} bytes in all, and the source sent {} of "
                            "{}",
                            index, node.frames.load(), node.bytes.load(), source.frames.load(),
                            source.bytes.load()));
        }
        if (node.fingerprint != 0 && node.fingerprint != source.fingerprint) {
            throw std::runtime_error(fmt::format("node {} saw other bytes than were sent", index));
        }
        if (node.copies != 0) {
            throw std::runtime_error(
                fmt::format("node {} copied {} frames: it held more than the ring has room for",
                            index, node.copies.load()));
        }
    }
    if (source.frames == 0 && Signals::Count() == 0) {
        throw std::runtime_error("no frame was sent");
    }
}

/// What nodes 1 and 2 drew is what the last node saw, and was not there before.
void Run::RequireDrawings() const {
    const auto& [source, first, second, encoder, last] = board_->nodes;
    if (last.lumaTopLeft != first.lumaTopLeft || first.lumaTopLeft == source.lumaTopLeft) {
        throw std::runtime_error("what node 1 drew did not reach the last node");
    }
    if (last.lumaBottomRight != second.lumaBottomRight ||
        second.lumaBottomRight == first.lumaBottomRight) {
        throw std::runtime_error("what node 2 drew did not reach the last node");
    }
}

void Run::Execute() {
    StreamObjects objects{StreamNames(options_.ring)};
    output_.Begin();
    {
        std::vector<NodeChain::Body> bodies;
        for (std::size_t node = 0; node < kChainLength; ++node) {
            bodies.emplace_back([this, node] { return LiveAs(node); });
        }
        NodeChain chain(bodies);
        Watch(chain);
    }
    objects.Remove();
    if (!error_.empty()) {
        throw std::runtime_error(error_);
    }
    RequireAgreement();
    if (options_.raw && board_->nodes.front().frames != 0) {
        RequireDrawings();
    }
}

}  // namespace

int RunMediaChain(const ChainOptions& options) {
    Run run(options);
    Signals::Catch();
    try {
        run.Execute();
    } catch (const std::exception&) {
        if (Signals::Count() > 1) {
            return ExitInterrupted(Signals::First());  // given up at the user's request
        }
        throw;
    }
    return Signals::First() != 0 ? ExitInterrupted(Signals::First()) : 0;
}

}  // namespace qel
