#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "FileSource.h"
#include "MatroskaProcess.h"
#include "Replay.h"
#include "RingRules.h"
#include "Signals.h"
#include "SingleStage.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct ReplayOptions {
    SingleStage stage;
    std::string file;
    Replay::Options replay;
    bool withoutEnd = false;
    CLI::Option* sizeOption = nullptr;
};

bool IsRegular(const InputFile& input) {
    struct stat status {};
    return fstat(input.Fd(), &status) == 0 && S_ISREG(status.st_mode);
}

bool IsMatroska(const InputFile& input) {
    constexpr std::array<unsigned char, 4> kMagic{0x1a, 0x45, 0xdf, 0xa3};
    std::array<unsigned char, 4> begin{};
    return pread(input.Fd(), begin.data(), begin.size(), 0) == static_cast<ssize_t>(begin.size()) &&
           begin == kMagic;
}

/// A recording, from its start each time.
class RecordingFile {
public:
    explicit RecordingFile(const std::string& path)
        : input_(path), isRegular_(IsRegular(input_)), isMatroska_(IsMatroska(input_)) {}

    [[nodiscard]] bool IsRewindable() const noexcept { return isRegular_; }
    [[nodiscard]] bool IsSurveyable() const noexcept { return isRegular_ && !isMatroska_; }

    [[nodiscard]] std::unique_ptr<PacketFileReader> Open() {
        int fd = input_.Fd();
        if (isMatroska_) {
            FinishDemuxer();
            demuxer_.emplace(MatroskaProcess::Demuxer(input_.Path()));
            fd = demuxer_->Fd();
        } else if (isRegular_ && lseek(fd, 0, SEEK_SET) != 0) {
            throw std::runtime_error("cannot go back to the start of " + input_.Path());
        }
        source_ = std::make_unique<FileSource>(fd, input_.Path(), Signals::Any);
        return std::make_unique<PacketFileReader>(
            [this](const ByteSpan& buffer) { return source_->Read(buffer); }, input_.Path());
    }

    [[nodiscard]] RecordingSurvey LookThrough(PacketFileReader& reader) {
        return Survey(reader, [this](std::uint64_t bytes) { return source_->Skip(bytes); });
    }

    /// What went wrong with it shows at its end.
    void FinishDemuxer() {
        if (demuxer_) {
            demuxer_->Finish();
            demuxer_.reset();
        }
    }

private:
    InputFile input_;
    bool isRegular_;
    bool isMatroska_;
    std::optional<MatroskaProcess> demuxer_;
    std::unique_ptr<FileSource> source_;
};

/// Before anything is touched.
void RequireUsable(const ReplayOptions& options, RecordingFile& file) {
    if (options.replay.loops != 1 && !file.IsRewindable()) {
        throw UsageError("--loop takes a file that can be read again");
    }
    if (file.IsSurveyable()) {
        const RecordingSurvey survey = file.LookThrough(*file.Open());
        RequirePacketFits(std::max<std::uint64_t>(survey.largestPayload, 1),
                          options.stage.ring.size);
    }
}

std::string NotesOn(const Replay& replay) {
    std::string notes;
    if (replay.Overruns() != 0) {
        notes += fmt::format("; {} in the recording", Counted(replay.Overruns(), "overrun"));
    }
    if (replay.IsTorn()) {
        notes += "; the last entry of the recording is not there in full";
    }
    return notes;
}

/// The ring is as large as the recorded one unless told otherwise.
void TakeSizeOf(const PacketFileReader& recording, ReplayOptions& options) {
    if (options.sizeOption->count() == 0 && recording.RingSize() != 0) {
        options.stage.ring.size = recording.RingSize();
    }
}

int RunReplay(ReplayOptions options) {
    RecordingFile file(options.file);
    Signals::Catch();
    auto first = file.Open();
    TakeSizeOf(*first, options);
    RequireRing(options.stage.ring);
    RequireUsable(options, file);
    if (file.IsSurveyable()) {
        first = file.Open();
    }
    const auto largest = LargestPayload(options.stage.ring.size);
    const auto open = [&] {
        auto reader = std::exchange(first, nullptr);
        if (!reader) {
            reader = file.Open();
        }
        reader->SetLargestPayload(largest.value_or(0));
        return reader;
    };
    Replay replay(options.replay, open, Signals::Any);
    const int status = RunSingleStage(
        "replay", options.stage,
        [&](SharedPacketBufferIF& buffer, const StageStops& stops, StageCounters& counters) {
            return RunSource(
                buffer, options.stage.ring, [&] { return replay.Next(); }, !options.withoutEnd,
                stops, counters);
        });
    if (const std::string notes = NotesOn(replay); !notes.empty()) {
        (void)std::fprintf(stderr, "qev replay: %s\n", notes.c_str() + 2);
    }
    if (!Signals::Any()) {
        file.FinishDemuxer();
    }
    return status;
}

}  // namespace

Verb AddReplayVerb(CLI::App& app) {
    auto options = std::make_shared<ReplayOptions>();
    CLI::App* const command =
        app.add_subcommand("replay", "Node 0 by itself: send the packets of a recording");
    command->add_option("FILE", options->file, "Recording of qev record; - is standard input")
        ->required()
        ->option_text(" ");
    AddStageOptions(*command, options->stage);
    options->sizeOption = command->get_option("--size");
    options->sizeOption->option_text("BYTES [as recorded]");
    auto* const fast = command->add_flag("--fast", options->replay.fast,
                                         "Send as fast as it goes, not at the recorded pace");
    command
        ->add_option("--speed", options->replay.speed,
                     "As many times faster than it was recorded; less than 1 is slower")
        ->check(CLI::Range(0.001, 1000.0))
        ->excludes(fast)
        ->option_text("X [1]");
    command->add_option("--loop", options->replay.loops, "Send it so many times; 0 is without end")
        ->option_text("N [1]");
    command->add_flag("--no-end", options->withoutEnd,
                      "Do not send the end of the stream behind it");
    command->footer(
        "Packets get the time stamps, times and key flags that they were recorded with. The ring "
        "is made when it is not there, as large as the recorded one, and is left for the other "
        "nodes. A recording with packets that do not fit is refused before anything is touched; "
        "of a Matroska file and of standard input that shows at the packet. A recording that "
        "broke off is sent as far as it goes. Ctrl-C ends the stream early.\n"
        "\n"
        "Examples:\n"
        "  qev replay camera.qev --name camera\n"
        "  qev replay camera.mkv --name camera --size 64MiB --loop 0");
    return {command, [options] { return RunReplay(*options); }};
}

}  // namespace qel
