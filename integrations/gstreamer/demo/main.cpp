#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "CommandLine.h"
#include "MediaChain.h"
#include "RingRules.h"
#include "Text.h"

namespace qel {
namespace {

constexpr const char* kProgram = "qev-media-chain";

int Complain(const std::string& what, int status) {
    (void)std::fprintf(stderr, "%s: %s\n", kProgram, OneLine(what).c_str());
    return status;
}

void AddOptions(CLI::App& app, ChainOptions& options) {
    auto* const input =
        app.add_option("--input", options.input, "MP4 or MOV file with H.264 video to play")
            ->option_text("FILE");
    auto* const raw = app.add_flag(
        "--raw", options.raw,
        "Draw on the frames of a test picture, uncompressed, instead of playing a file");
    raw->excludes(input);
    app.add_option("--output", options.output, "MP4 file to write; replaced when it is there")
        ->required()
        ->option_text("FILE");
    constexpr std::uint64_t kLongest = 3600;
    app.add_option("--seconds", options.seconds, "Length of the test picture")
        ->check(CLI::Range(std::uint64_t{1}, kLongest))
        ->option_text("N [10]")
        ->needs(raw);
    AddBytesOption(app, "--size", options.size, "Size of the ring; KiB, MiB and so on allowed");
    app.add_flag("--fast", options.fast, "As fast as it goes instead of at the media's own pace");
    app.footer(
        "Five processes over one ring. With --input: one takes the frames out of the file, three "
        "look\n"
        "at them where they lie in the ring, the last records them. With --raw: one makes frames, "
        "two\n"
        "draw on them in the ring, one encodes, the last checks. Ctrl-C ends the stream in good "
        "order;\n"
        "a second one kills the processes. GST_PLUGIN_PATH has to name the directory of "
        "libgstqev.so.\n"
        "Exit status: 0 when all nodes saw the same and none copied, 1 when something failed, 2 "
        "for\n"
        "bad arguments, 128 + signal when interrupted.");
}

int Main(int argc, char** argv) {
    // The library reports on standard output, which belongs to the picture here.
    std::cout.flush();
    std::ostream out(std::cout.rdbuf(std::cerr.rdbuf()));

    ChainOptions options;
    options.ring = fmt::format("{}-{}", kProgram, getpid());
    options.size = 64U << 20U;
    options.seconds = 10;
    CLI::App app("Media through five GStreamer processes over one ring in shared memory.",
                 kProgram);
    AddOptions(app, options);
    try {
        app.parse(argc, argv);
        if (!options.raw && options.input.empty()) {
            return Complain("--input or --raw is required", kExitUsage);
        }
        RequireOrUsage([&] { RequireRingSize(options.size); });
        return RunMediaChain(options);
    } catch (const CLI::Success& help) {
        return app.exit(help, out);
    } catch (const CLI::ParseError& refusal) {
        return Complain(refusal.what(), kExitUsage);
    } catch (const UsageError& refusal) {
        return Complain(refusal.what(), kExitUsage);
    } catch (const std::exception& failure) {
        return Complain(failure.what(), kExitFailure);
    }
}

}  // namespace
}  // namespace qel

int main(int argc, char** argv) {
    return qel::Main(argc, argv);
}
