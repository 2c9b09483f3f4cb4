#include <fmt/format.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "CommandLine.h"
#include "RingFile.h"
#include "RingInspection.h"
#include "RingRules.h"
#include "SharedMemoryMetadata.h"
#include "SystemSemaphore.h"
#include "Verbs.h"

namespace qel {
namespace {

struct InspectVerbOptions {
    std::string name;
    InspectOptions inspect;
    unsigned nodes = 0;
    bool records = false;
    bool hex = false;
    bool json = false;
    std::uint64_t count = 100;
    std::uint64_t bytes = 256;
};

bool IsThere(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/// Names of other objects are easily taken for those of rings.
std::string NoRing(const std::string& name) {
    std::string text = fmt::format("there is no ring {}", name);
    if (IsThere(BlockLockPath(name))) {
        text += fmt::format("; the block of this name is shown by  qev block show {}", name);
    }
    if (IsThere(SystemSemaphore::PathOf(name))) {
        text += fmt::format("; the semaphore of this name is shown by  qev sem show {}", name);
    }
    return text;
}

int RunInspect(const InspectVerbOptions& options) {
    RequireOrUsage([&] { RequireRingName(options.name); });
    InspectOptions inspect;
    if (options.nodes != 0) {
        inspect.nodes = options.nodes;
    }
    if (options.records || options.hex) {
        inspect.records = {options.count, options.hex ? options.bytes : 0};
    }
    const auto ring = RingFile::Open(options.name);
    if (!ring) {
        throw std::runtime_error(NoRing(options.name));
    }
    const RingInspection found = Inspect(*ring, ProcessSurvey::Take(), inspect);
    Print(options.json ? JsonOf(options.name, found) : TextOf(options.name, found, inspect));
    return 0;
}

}  // namespace

Verb AddInspectVerb(CLI::App& app) {
    auto options = std::make_shared<InspectVerbOptions>();
    CLI::App* const command =
        app.add_subcommand("inspect",
                           "Show one ring: its control block, where its bytes are, what "
                           "must hold and whether it does");
    command->add_option("NAME", options->name, "Name of the ring")->required()->option_text(" ");
    command->add_flag("--records", options->records,
                      "List the headers of the records that wait for each node or are held by it");
    command->add_flag("--hex", options->hex, "List them with the beginning of their payloads");
    command->add_option("--count", options->count, "Records that are listed of each stretch")
        ->check(CLI::Range(1U, 1000000U))
        ->option_text("N [100]");
    AddBytesOption(*command, "--bytes", options->bytes, "Bytes of each payload that --hex shows");
    command
        ->add_option("--nodes", options->nodes,
                     "Nodes of the chain; else what has been reached so far tells")
        ->check(CLI::Range(2U, 5U))
        ->option_text("N");
    command->add_flag("--json", options->json, "Print it as JSON");
    command->footer(
        "The object is only read: no node is taken, nothing is changed, and a running chain is not "
        "held up.\n"
        "\n"
        "Examples:\n"
        "  qev inspect camera0\n"
        "  qev inspect camera0 --hex --count 3");
    return {command, [options] { return RunInspect(*options); }};
}

}  // namespace qel
