#include <memory>

#include "SingleStage.h"
#include "Verbs.h"

namespace qel {
namespace {

int RunNode(const SingleStage& stage) {
    RequireRing(stage.ring);
    return RunSingleStage(
        "node", stage,
        [&](SharedPacketBufferIF& buffer, const StageStops& stops, StageCounters& counters) {
            return RunReader(buffer, stage.ring, nullptr, stops, counters);
        });
}

}  // namespace

Verb AddNodeVerb(CLI::App& app) {
    auto stage = std::make_shared<SingleStage>();
    CLI::App* const command = app.add_subcommand(
        "node", "A node by itself: read each packet in place and hand it to the next");
    AddStageOptions(*command, *stage);
    command->add_option("--node", stage->node, "Place in the chain, 1 to 4")
        ->required()
        ->check(CLI::Range(1U, 4U))
        ->option_text("N");
    command->add_flag("--sink", stage->sink,
                      "Last node of the chain: give the space back to the producer");
    command->footer(
        "Nodes may be started in any order. A node ends when the end of the stream has passed,\n"
        "or with Ctrl-C. A second process that would be the same node of the same ring is\n"
        "refused.\n"
        "\n"
        "Examples:\n"
        "  qev node --name demo --node 1\n"
        "  qev node --name demo --node 2 --sink");
    return {command, [stage] { return RunNode(*stage); }};
}

}  // namespace qel
