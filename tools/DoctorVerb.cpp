#include <memory>
#include <string>

#include "Checkup.h"
#include "CommandLine.h"
#include "Verbs.h"

namespace qel {
namespace {

struct DoctorOptions {
    CheckupOptions checkup;
    unsigned nodes = 0;
    std::uint32_t maxFrames = 0;
    CLI::Option* maxFramesOption = nullptr;
    bool json = false;
};

int RunDoctor(const DoctorOptions& options) {
    CheckupOptions checkup = options.checkup;
    const bool isOfOneRing = options.nodes != 0 || options.maxFramesOption->count() > 0;
    if (isOfOneRing && checkup.names.size() != 1) {
        throw UsageError("--nodes and --max-frames are of one ring: name it");
    }
    if (options.nodes != 0) {
        checkup.nodes = options.nodes;
    }
    if (options.maxFramesOption->count() > 0) {
        checkup.maxFrames = options.maxFrames;
    }
    const Checkup found = CheckObjects(checkup);
    Print(options.json ? JsonOf(found) : TextOf(found));
    const bool isSound = found.Count(Severity::Fault) == 0 && found.Count(Severity::Warning) == 0;
    return isSound ? 0 : kExitFailure;
}

}  // namespace

Verb AddDoctorVerb(CLI::App& app) {
    const auto options = std::make_shared<DoctorOptions>();
    CLI::App* const command = app.add_subcommand(
        "doctor",
        "Find what is wrong with rings, blocks, semaphores and the machine, and what "
        "mends it");
    command
        ->add_option("NAME", options->checkup.names,
                     "Names of rings, blocks or semaphores; none: all there are, and the machine")
        ->option_text(" ");
    command
        ->add_option("--nodes", options->nodes,
                     "Nodes of the ring's chain; else what has been reached so far tells")
        ->check(CLI::Range(2U, 5U))
        ->option_text("N");
    options->maxFramesOption = command
                                   ->add_option("--max-frames", options->maxFrames,
                                                "Limit that the ring is to have; else any is right")
                                   ->option_text("N");
    command->add_flag("--json", options->json, "Print what is found as JSON");
    command->footer(
        "Nothing is changed: no lock is taken, no ring is opened, and a running chain is not held\n"
        "up. What looks wrong in a ring at work is looked at again for half a second, and longer\n"
        "where a process may be in the middle of a step, before it counts. What this user cannot\n"
        "see is said.\n"
        "\n"
        "A fault is broken; a warning may break, or keeps others waiting; a note is worth "
        "knowing.\n"
        "Exit status: 0 if there is at most a note, 1 if there is a fault or a warning, or if it\n"
        "cannot be found out, 2 for bad arguments.\n"
        "\n"
        "Examples:\n"
        "  qev doctor\n"
        "  qev doctor camera --max-frames 30\n"
        "  qev doctor --json | jq '.objects[].findings[].code'");
    return {command, [options] { return RunDoctor(*options); }};
}

}  // namespace qel
