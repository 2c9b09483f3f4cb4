#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Files.h"
#include "MatroskaProcess.h"
#include "Recorder.h"
#include "RingRules.h"
#include "Signals.h"
#include "StreamCaps.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

constexpr int kExitMissed = 3;

struct RecordVerbOptions {
    RecordOptions record;
    std::string output = kStandardStream;
    std::string format = "qev";
    std::string caps;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    double seconds = 0;
    double poll = 0;  // milliseconds
    bool fromOldest = false;
    bool arrivalTimes = false;
};

std::string CountsText(const RecordCounts& counts) {
    const double seconds = std::chrono::duration<double>(counts.elapsed).count();
    return fmt::format("{}, {} bytes, {}, {:.1f} s, {:.1f} MB/s", Counted(counts.packets, "packet"),
                       counts.bytes, Counted(counts.overruns, "overrun"), seconds,
                       seconds > 0 ? static_cast<double>(counts.bytes) / 1e6 / seconds : 0);
}

/// The line on a terminal that tells how far the recording is.
class RecordProgress {
public:
    void Draw(const RecordCounts& counts) {
        constexpr std::chrono::milliseconds kPeriod{200};
        if (!isTerminal_ || counts.elapsed - last_ < kPeriod) {
            return;
        }
        last_ = counts.elapsed;
        (void)std::fputs(("\r\033[K" + CountsText(counts)).c_str(), stderr);
        drawn_ = true;
    }

    void Say(const std::string& text) {
        (void)std::fprintf(stderr, "%sqev record: %s\n", drawn_ ? "\r\033[K" : "", text.c_str());
        drawn_ = false;
    }

private:
    bool isTerminal_ = isatty(STDERR_FILENO) == 1;
    bool drawn_ = false;
    std::chrono::nanoseconds last_{0};
};

std::string NoteOn(RecordEnd end) {
    switch (end) {
        case RecordEnd::Removed:
            return "; the ring was removed";
        case RecordEnd::Stopped:
            return "; stopped";
        case RecordEnd::EndOfStream:
        case RecordEnd::Limit:
            break;
    }
    return "";
}

RecordOptions OptionsOf(const RecordVerbOptions& given) {
    RecordOptions options = given.record;
    options.follower.start = given.fromOldest ? RingTap::Start::Oldest : RingTap::Start::Now;
    options.follower.waitForNext = options.follow;
    if (given.packets != 0) {
        options.packets = given.packets;
    }
    if (given.bytes != 0) {
        options.bytes = given.bytes;
    }
    if (given.seconds > 0) {
        options.time = std::chrono::duration<double>(given.seconds);
    }
    if (given.poll > 0) {
        options.follower.poll =
            std::chrono::microseconds(std::lround(std::ceil(given.poll * 1000)));
    }
    return options;
}

/// Turns the recording into a Matroska file on its way.
class MatroskaOutput {
public:
    /// @param output  begun only when it is known what to write
    MatroskaOutput(const RecordVerbOptions& given, OutputFile& output)
        : given_(given), output_(output), caps_(given.caps) {
        MatroskaProcess::RequireInstalled();
        LookForCaps();
    }

    void Write(const ByteSpan& data) {
        if (!muxer_) {
            waiting_.insert(waiting_.end(), data.begin(), data.end());
            if (waiting_.size() <= sizeof(PacketFileHead)) {
                return;
            }
            Start();
            muxer_->Write({waiting_.data(), waiting_.size()});
            return;
        }
        muxer_->Write(data);
    }

    void Finish() {
        if (muxer_) {
            muxer_->Finish();
        }
    }

private:
    void LookForCaps() {
        if (caps_.empty()) {
            caps_ = CapsOfWriter(given_.record.ring).value_or("");
        }
    }

    /// With the first packet: by then the ring's writer has said what it writes.
    void Start() {
        LookForCaps();
        if (caps_.empty()) {
            throw std::runtime_error(fmt::format(
                "ring {} has no caps: its writer is no GStreamer element, or has gone; say with "
                "--caps what its payloads are",
                given_.record.ring));
        }
        std::vector<std::string> arguments{"--caps", caps_};
        if (given_.arrivalTimes) {
            arguments.emplace_back("--arrival-times");
        }
        MatroskaProcess::RequireCaps(caps_);
        output_.Begin();
        muxer_.emplace(MatroskaProcess::Muxer(output_.Fd(), std::move(arguments)));
    }

    const RecordVerbOptions& given_;
    OutputFile& output_;
    std::string caps_;
    std::vector<unsigned char> waiting_;
    std::optional<MatroskaProcess> muxer_;
};

int RunRecord(const RecordVerbOptions& given) {
    RequireOrUsage([&] { RequireRingName(given.record.ring); });
    OutputFile output(given.output);
    if (given.output == kStandardStream && isatty(STDOUT_FILENO) == 1) {
        throw UsageError("a recording is not for a terminal: give an --output");
    }
    const bool isMatroska = given.format == "matroska";
    if (!isMatroska && (!given.caps.empty() || given.arrivalTimes)) {
        throw UsageError("--caps and --arrival-times are for --format matroska");
    }
    std::optional<MatroskaOutput> muxer;
    if (isMatroska) {
        MatroskaProcess::RequireInstalled();
    }
    Signals::Catch();
    const auto stop = Signals::Any;
    RecordProgress progress;
    bool hasBegun = false;
    const auto begin = [&] {
        if (isMatroska) {
            muxer.emplace(given, output);
        } else {
            output.Begin();
        }
        hasBegun = true;
        return true;
    };
    const auto sink = [&](const ByteSpan& data) {
        if (!muxer) {
            return output.Write(data, stop);
        }
        muxer->Write(data);
        return true;
    };
    Recorder recorder(OptionsOf(given),
                      {stop, [&](const RecordCounts& counts) { progress.Draw(counts); },
                       [&](const std::string& text) { progress.Say(text); }, begin},
                      sink);
    const RecordEnd end = recorder.Run();
    if (!hasBegun) {
        return ExitInterrupted(Signals::First());
    }
    if (muxer) {
        muxer->Finish();
    }
    progress.Say(CountsText(recorder.Counts()) + NoteOn(end));
    return recorder.Counts().overruns == 0 ? 0 : kExitMissed;
}

void AddLimits(CLI::App& command, RecordVerbOptions& options) {
    command.add_option("--packets", options.packets, "End behind so many packets")
        ->check(CLI::PositiveNumber)
        ->option_text("N");
    AddBytesOption(command, "--bytes", options.bytes,
                   "End behind so many bytes of payload; KiB, MiB and so on allowed")
        ->option_text("BYTES");
    command.add_option("--seconds", options.seconds, "End after so much time")
        ->check(CLI::PositiveNumber)
        ->option_text("S");
}

}  // namespace

Verb AddRecordVerb(CLI::App& app) {
    auto options = std::make_shared<RecordVerbOptions>();
    CLI::App* const command = app.add_subcommand(
        "record", "Write a running ring's packets to a file, without being a node of it");
    command->add_option("NAME", options->record.ring, "Name of the ring")
        ->required()
        ->option_text(" ");
    command->add_option("--output", options->output, "File to write; - is standard output")
        ->option_text("FILE [-]");
    command
        ->add_option("--format", options->format,
                     "qev: packets with their headers and times; matroska: a media file")
        ->check(CLI::IsMember({"qev", "matroska"}))
        ->option_text("FORMAT [qev]");
    command
        ->add_option("--caps", options->caps,
                     "What the payloads are, as GStreamer writes it; for matroska, and not needed "
                     "while an element feeds the ring")
        ->option_text("CAPS");
    command->add_flag("--arrival-times", options->arrivalTimes,
                      "Time stamps in a matroska file are the times of arrival, for rings whose "
                      "time stamps are no nanoseconds");
    AddLimits(*command, *options);
    command->add_flag("--from-oldest", options->fromOldest,
                      "Begin with the oldest packet that the last node has not read");
    command->add_flag("--follow", options->record.follow,
                      "Go on behind the end of a stream, and wait for the next ring of the name");
    command->add_flag("--wait-for", options->record.follower.waitForRing,
                      "Wait for the ring if it is not there; all of it is recorded then");
    command->add_option("--poll", options->poll, "Longest time between two looks at the ring")
        ->check(CLI::PositiveNumber)
        ->option_text("MILLISECONDS");
    command->footer(
        "The ring is only read: the recording takes no node, holds up nobody and changes nothing. "
        "So it may be overrun by a fast writer: that is said at once, marked in the file, and the "
        "exit status is 3. What is written is always whole packets as the writer made them. Ends "
        "with the stream, at a limit, or at Ctrl-C, with status 0. Without --poll the ring's size "
        "and rate tell how often to look.\n"
        "\n"
        "Exit status 0 when all went well, 1 when something failed, 2 for bad arguments, 3 when "
        "packets were missed.\n"
        "\n"
        "Examples:\n"
        "  qev record camera --output camera.qev --seconds 60\n"
        "  qev record camera --format matroska --output camera.mkv");
    return {command, [options] { return RunRecord(*options); }};
}

}  // namespace qel
