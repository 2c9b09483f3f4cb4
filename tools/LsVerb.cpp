#include <memory>

#include "CommandLine.h"
#include "Listing.h"
#include "Verbs.h"

namespace qel {
namespace {

struct LsOptions {
    bool json = false;
};

int RunLs(const LsOptions& options) {
    const Listing listing = ListObjects();
    Print(options.json ? JsonOf(listing) : TextOf(listing));
    return 0;
}

}  // namespace

Verb AddLsVerb(CLI::App& app) {
    auto options = std::make_shared<LsOptions>();
    CLI::App* const command =
        app.add_subcommand("ls",
                           "List all rings, blocks and semaphores of this machine: size, "
                           "content, age, state, and who uses them");
    command->add_flag("--json", options->json, "Print them as JSON");
    command->footer(
        "States of a ring: live (packets move), idle (in use, nothing moves), orphaned (nobody "
        "uses it), fresh (reserved, not yet opened), never initialised, desynchronised (qev doctor "
        "tells more); of a block: live, stale record (its creator has gone), no record; of a "
        "semaphore: live, orphaned, damaged. unseen: nobody is seen to use it, and not all "
        "processes can be seen.\n"
        "\n"
        "Examples:\n"
        "  qev ls\n"
        "  qev ls --json | jq -r '.objects[] | select(.state == \"orphaned\") | .name'");
    return {command, [options] { return RunLs(*options); }};
}

}  // namespace qel
