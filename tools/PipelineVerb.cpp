#include <fmt/format.h>
#include <unistd.h>

#include <memory>

#include "Pipeline.h"
#include "Verbs.h"

namespace qel {

Verb AddPipelineVerb(CLI::App& app) {
    auto options = std::make_shared<PipelineOptions>();
    options->ring.name = fmt::format("qev-pipeline-{}", getpid());
    CLI::App* const command = app.add_subcommand(
        "pipeline", "Send a file through a chain of processes and check what comes out");
    command->add_option("--input", options->input, "File to send")->required()->option_text("FILE");
    command->add_option("--output", options->output, "File to write; replaced when it is there")
        ->required()
        ->option_text("FILE");
    constexpr unsigned kFewest = 2;
    constexpr unsigned kMost = 5;
    command->add_option("--nodes", options->nodes, "Processes in the chain, 2 to 5")
        ->check(CLI::Range(kFewest, kMost))
        ->option_text("N [5]");
    AddPacketOption(*command, options->packetSize);
    AddRingOptions(*command, options->ring);
    command
        ->add_option("--name", options->ring.name,
                     "Name of the ring, made for this run and removed after it")
        ->option_text("NAME [qev-pipeline-PID]");
    command->add_flag("--json", options->json, "Write the summary as JSON");
    command->footer(
        "One process per node: node 0 cuts the file into packets, the inner nodes read each\n"
        "packet in place, the last writes it to the output. Ctrl-C stops cutting and lets the\n"
        "chain run empty; a second one kills the nodes.\n"
        "\n"
        "Exit status: 0 when the output is the input byte for byte and nothing is left behind,\n"
        "1 when something failed, 2 for bad arguments (nothing is touched then), 128 + the\n"
        "signal's number when interrupted.\n"
        "\n"
        "Examples:\n"
        "  qev pipeline --input video.mp4 --output copy.mp4\n"
        "  qev pipeline --input video.mp4 --output copy.mp4 --nodes 3 --size 1MiB --json");
    return {command, [options] { return RunPipeline(*options); }};
}

}  // namespace qel
