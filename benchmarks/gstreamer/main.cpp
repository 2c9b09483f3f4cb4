#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Report.h"
#include "Summary.h"
#include "Transports.h"
#include "Trial.h"

namespace qel {
namespace {

struct Options {
    std::vector<std::string> transports = TransportKinds();
    std::vector<std::string> streams{"1080p30", "4k60"};
    double seconds = 10;
    std::uint64_t frames = 0;
    std::uint64_t warmUp = 30;
    unsigned rounds = 5;
    unsigned ringFrames = 8;
    double idle = 2;
    bool flatOut = false;
    bool readAll = false;
    bool isShort = false;
    std::string json;
    std::string plugins = QEV_GST_PLUGINS;
};

const std::vector<VideoStream>& KnownStreams() {
    static const std::vector<VideoStream> streams{{"1080p30", 1920, 1080, 30},
                                                  {"4k60", 3840, 2160, 60}};
    return streams;
}

std::vector<std::string> NamesOfStreams() {
    std::vector<std::string> names;
    for (const VideoStream& stream : KnownStreams()) {
        names.push_back(stream.name);
    }
    return names;
}

void AddOptions(CLI::App& app, Options& options) {
    app.add_option("--transport", options.transports, "What to compare")
        ->check(CLI::IsMember(TransportKinds()))
        ->delimiter(',')
        ->capture_default_str();
    app.add_option("--stream", options.streams, "What to send")
        ->check(CLI::IsMember(NamesOfStreams()))
        ->delimiter(',')
        ->capture_default_str();
    app.add_option("--rounds", options.rounds, "How often each transport has its turn")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "How long a turn is at the stream's rate")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
    app.add_option("--frames", options.frames, "Frames measured in a turn, in place of --seconds");
    app.add_option("--warm-up", options.warmUp, "Frames ahead of them that are not measured")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    app.add_option("--ring-frames", options.ringFrames, "Room in shared memory, in frames")
        ->check(CLI::Range(2, 1000))
        ->capture_default_str();
    app.add_option("--idle", options.idle, "Seconds without data at the end of a turn")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    app.add_flag("--flat-out", options.flatOut, "Send as fast as the transport takes frames");
    app.add_flag("--read-all", options.readAll, "The reader reads a byte of each cache line");
    app.add_flag("--short", options.isShort, "Few frames, to see that it works");
    app.add_option("--json", options.json, "Write all figures to this file");
    app.add_option("--plugins", options.plugins, "Where qevsink and qevsrc are")
        ->capture_default_str();
}

Plan PlanFor(const std::string& name, const Options& options) {
    const auto& known = KnownStreams();
    const VideoStream stream = *std::find_if(
        known.begin(), known.end(), [&name](const VideoStream& one) { return one.name == name; });
    const std::uint64_t measured =
        options.frames != 0
            ? options.frames
            : std::max<std::uint64_t>(
                  1, static_cast<std::uint64_t>(std::llround(options.seconds * stream.rate)));
    constexpr std::uint64_t kHeaders = 4096;  // more than what stands beside the frames
    return {stream,
            options.flatOut,
            options.warmUp + measured,
            options.warmUp,
            options.ringFrames * (stream.FrameBytes() + kHeaders),
            options.idle,
            options.readAll};
}

std::atomic<bool> interrupted{false};

void CatchSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = true; };
    (void)sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)sigaction(signal, &action, nullptr);
    }
    (void)std::signal(SIGCHLD, SIG_DFL);  // the processes' exit statuses are wanted
}

double Load() {
    double load = 0;
    return getloadavg(&load, 1) == 1 ? load : 0;
}

std::string Processor() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("model name", 0) == 0) {
            return line.substr(std::min(line.size(), line.find(": ") + 2));
        }
    }
    return "unknown";
}

/// The transports take turns, each round beginning with another, so that what changes on the
/// machine meanwhile meets all of them.
Comparison Compare(const Plan& plan, const Options& options) {
    Comparison comparison{plan, {}};
    for (const std::string& kind : options.transports) {
        comparison.rows.push_back({kind, {}});
    }
    const std::size_t count = comparison.rows.size();
    for (unsigned round = 0; round < options.rounds; ++round) {
        for (std::size_t turn = 0; turn < count; ++turn) {
            Row& row = comparison.rows[(round + turn) % count];
            (void)std::fprintf(stderr, "%s, round %u of %u: %s\n", plan.stream.name.c_str(),
                               round + 1, options.rounds, row.kind.c_str());
            row.rounds.push_back(RunTrial(row.kind, plan, [] { return interrupted.load(); }));
        }
    }
    return comparison;
}

bool AllArrived(const std::vector<Comparison>& comparisons) {
    for (const Comparison& comparison : comparisons) {
        for (const Row& row : comparison.rows) {
            for (const TrialResult& round : row.rounds) {
                if (round.lost != 0 || round.wrong != 0) {
                    return false;
                }
            }
        }
    }
    return true;
}

void RequireWritten(const std::ofstream& file, const Options& options) {
    if (!file) {
        throw std::runtime_error("cannot write " + options.json);
    }
}

int Run(const Options& options) {
    CatchSignals();
    std::ofstream file;
    if (!options.json.empty()) {
        file.open(options.json);  // now, so that a wrong path does not cost the whole run
        RequireWritten(file, options);
    }
    (void)setenv("GST_PLUGIN_PATH", options.plugins.c_str(), 1);
    utsname system{};
    (void)uname(&system);
    Machine machine{system.release, Processor(), std::thread::hardware_concurrency(), Load(), 0};
    std::vector<Comparison> comparisons;
    for (const std::string& stream : options.streams) {
        comparisons.push_back(Compare(PlanFor(stream, options), options));
    }
    machine.loadAfter = Load();
    if (file.is_open()) {
        file << JsonOf(comparisons, machine) << std::flush;
        RequireWritten(file, options);
    }
    (void)std::fputs(MarkdownOf(comparisons, machine).c_str(), stdout);
    if (!AllArrived(comparisons)) {
        throw std::runtime_error("not all frames arrived as they were sent");
    }
    return EXIT_SUCCESS;
}

int Main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Sends raw video from one process to another with GStreamer, through qevsink and qevsrc, "
        "shmsink and shmsrc, and a pipe, and compares what that costs.",
        "gst_transport_benchmark");
    AddOptions(app, options);
    CLI11_PARSE(app, argc, argv);
    if (options.isShort) {
        options.rounds = 1;
        options.frames = 24;
        options.warmUp = 4;
        options.idle = 0;
        options.flatOut = true;
        options.readAll = true;
    }
    try {
        return Run(options);
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "gst_transport_benchmark: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}

}  // namespace
}  // namespace qel

int main(int argc, char** argv) {
    return qel::Main(argc, argv);
}
