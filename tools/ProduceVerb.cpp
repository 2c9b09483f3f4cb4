#include <memory>

#include "SingleStage.h"
#include "Verbs.h"

namespace qel {
namespace {

struct ProduceOptions {
    SingleStage stage;
    std::string input = kStandardStream;
    std::uint64_t packetSize = kDefaultPacketSize;
};

int RunProduce(const ProduceOptions& options) {
    RequireRing(options.stage.ring);
    RequirePacketFits(options.packetSize, options.stage.ring.size);
    const InputFile input(options.input);
    return RunSingleStage(
        "produce", options.stage,
        [&](SharedPacketBufferIF& buffer, const StageStops& stops, StageCounters& counters) {
            return RunProducer(buffer, options.stage.ring, input, options.packetSize, stops,
                               counters);
        });
}

}  // namespace

Verb AddProduceVerb(CLI::App& app) {
    auto options = std::make_shared<ProduceOptions>();
    CLI::App* const command = app.add_subcommand(
        "produce", "Node 0 by itself: cut a file or standard input into packets");
    AddStageOptions(*command, options->stage);
    command->add_option("--input", options->input, "File to send; - is standard input")
        ->option_text("FILE [-]");
    AddPacketOption(*command, options->packetSize);
    command->add_option("--node", options->stage.node, "Place in the chain: always 0")
        ->check(CLI::Range(0U, 0U))
        ->option_text("0");
    command->footer(
        "Sends the end of the stream behind the input. The ring is made when it is not there\n"
        "and is left for the other nodes. Ctrl-C ends the stream early. A second process that\n"
        "would be node 0 of the same ring is refused.\n"
        "\n"
        "Examples:\n"
        "  qev produce --name demo --input video.mp4\n"
        "  journalctl | qev produce --name log --size 1MiB --packet 4096");
    return {command, [options] { return RunProduce(*options); }};
}

}  // namespace qel
