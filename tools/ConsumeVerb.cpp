#include <memory>

#include "RingObject.h"
#include "SingleStage.h"
#include "Verbs.h"

namespace qel {
namespace {

struct ConsumeOptions {
    SingleStage stage;
    std::string output = kStandardStream;
    bool unlink = false;
};

int RunConsume(const ConsumeOptions& options) {
    RequireRing(options.stage.ring);
    OutputFile output(options.output);
    StageEnd end = StageEnd::Stopped;
    const int status = RunSingleStage(
        "consume", options.stage,
        [&](SharedPacketBufferIF& buffer, const StageStops& stops, StageCounters& counters) {
            output.Begin();
            end = RunReader(buffer, options.stage.ring, &output, stops, counters);
            return end;
        });
    if (options.unlink && end == StageEnd::EndOfStream) {
        RingObject::Unlink(options.stage.ring.name);
    }
    return status;
}

}  // namespace

Verb AddConsumeVerb(CLI::App& app) {
    auto options = std::make_shared<ConsumeOptions>();
    options->stage.sink = true;
    CLI::App* const command = app.add_subcommand(
        "consume", "The last node by itself: write packets to a file or standard output");
    AddStageOptions(*command, options->stage);
    command->add_option("--node", options->stage.node, "Place in the chain, 1 to 4")
        ->required()
        ->check(CLI::Range(1U, 4U))
        ->option_text("N");
    command->add_flag("--sink", "Always so: this is the last node of the chain");
    command->add_option("--output", options->output, "File to write; - is standard output")
        ->option_text("FILE [-]");
    command->add_flag("--unlink", options->unlink,
                      "Remove the ring when the stream has ended; otherwise it is left");
    command->footer(
        "Ends when the end of the stream has come, or with Ctrl-C. A second process that would\n"
        "be the same node of the same ring is refused.\n"
        "\n"
        "Examples:\n"
        "  qev consume --name demo --node 1 --output copy.mp4 --unlink\n"
        "  qev consume --name log --size 1MiB --node 1 | grep error");
    return {command, [options] { return RunConsume(*options); }};
}

}  // namespace qel
