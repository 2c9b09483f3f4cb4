#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "Limits.h"

namespace qel::bench {
namespace {

struct Options {
    std::size_t size = 64;
    std::size_t ring = 64 << 20;
    unsigned nodes = 2;
    std::uint64_t packets = 0;
    double seconds = 0.3;
    bool nonTemporal = false;
    bool bare = false;
};

nlohmann::json Run(const std::string& what, const Options& options) {
    if (what == "copy") {
        return MeasureCopy(options.size, options.ring,
                           options.nonTemporal ? CopyBy::NonTemporal : CopyBy::Memcpy,
                           options.seconds);
    }
    if (what == "pingpong") {
        return MeasurePingPong(options.seconds);
    }
    if (what == "semaphores") {
        return MeasureSemaphores(options.seconds);
    }
    if (what == "block") {
        return MeasureBlock(options.size, options.bare ? BlockBy::Raw : BlockBy::Library,
                            options.seconds);
    }
    return MeasureOneThread(options.size, options.ring,
                            options.bare ? RingBy::Bare : RingBy::Library, options.nodes,
                            options.seconds, options.packets);
}

int Main(int argc, char** argv) {
    Options options;
    CLI::App app("Measures what the machine allows, and tells the figures as JSON.");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_subcommand("copy", "Copying round a mapping");
    app.add_subcommand("pingpong", "A cache line from core to core and back");
    app.add_subcommand("semaphores", "Waking up another process and being woken up");
    app.add_subcommand("block", "A block's lock");
    app.add_subcommand("one-thread", "Write, read and release in one thread");
    app.add_option("--size", options.size, "Bytes of a message or a block");
    app.add_option("--ring", options.ring, "Bytes of the mapping");
    app.add_option("--nodes", options.nodes, "Nodes of the library's chain")
        ->check(CLI::Range(2, 5));
    app.add_option("--packets", options.packets, "How many, in place of --seconds");
    app.add_option("--seconds", options.seconds, "How long to measure");
    app.add_flag("--non-temporal", options.nonTemporal, "Copy past the caches");
    app.add_flag("--bare", options.bare, "What the machine allows, without the library");
    CLI11_PARSE(app, argc, argv);
    try {
        std::cout << Run(app.get_subcommands().front()->get_name(), options) << '\n';
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}

}  // namespace
}  // namespace qel::bench

int main(int argc, char** argv) {
    return qel::bench::Main(argc, argv);
}
