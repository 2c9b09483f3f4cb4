#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Confirm.h"
#include "Orphans.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct CleanOptions {
    std::vector<std::string> names;
    std::int64_t olderThan = 0;
    bool yes = false;
    bool dryRun = false;
};

std::string LineOf(const Orphan& orphan) {
    return fmt::format("{}: {}{}{}\n", orphan.ObjectText(),
                       BytesText(static_cast<double>(orphan.Bytes())),
                       orphan.age ? ", " + AgeText(*orphan.age) + " old" : "",
                       orphan.content.empty() ? "" : ", " + orphan.content);
}

/// Tells what is kept of what was asked for.
void TellKept(const std::vector<std::string>& reasons) {
    for (const std::string& reason : reasons) {
        (void)std::fprintf(stderr, "qev clean: %s\n", reason.c_str());
    }
}

int Remove(const std::vector<Orphan>& orphans) {
    std::vector<std::string> reasons;
    std::uint64_t bytes = 0;
    std::size_t count = 0;
    const ProcessSurvey processes = ProcessSurvey::Take();  // who has come meanwhile
    for (const Orphan& orphan : orphans) {
        if (const std::string why = RemoveOrphan(orphan, processes); !why.empty()) {
            reasons.push_back(fmt::format("{} is kept: {}", orphan.ObjectText(), why));
            continue;
        }
        ++count;
        bytes += orphan.Bytes();
    }
    Print(fmt::format("{} removed, {} freed\n", Counted(count, "object"),
                      BytesText(static_cast<double>(bytes))));
    TellKept(reasons);
    return reasons.empty() ? 0 : kExitFailure;
}

int RunClean(const CleanOptions& options) {
    OrphanSearch search = FindOrphans(options.names, ProcessSurvey::Take());
    std::string text;
    std::vector<Orphan> orphans;
    for (Orphan& orphan : search.orphans) {
        if (options.olderThan == 0 || (orphan.age && *orphan.age > options.olderThan)) {
            text += LineOf(orphan);
            orphans.push_back(std::move(orphan));
        } else if (!options.names.empty()) {
            search.kept.push_back(orphan.ObjectText() + " is kept: it is not that old");
        }
    }
    if (orphans.empty() && search.kept.empty()) {
        text = "there is nothing to remove\n";
    }
    Print(text);
    TellKept(search.kept);
    const int status = search.kept.empty() ? 0 : kExitFailure;
    if (orphans.empty() || options.dryRun) {
        return status;
    }
    if (!options.yes) {
        Confirm(fmt::format("Remove {}?", Counted(orphans.size(), "object")));
    }
    const int removal = Remove(orphans);
    return removal != 0 ? removal : status;
}

}  // namespace

Verb AddCleanVerb(CLI::App& app) {
    const auto options = std::make_shared<CleanOptions>();
    CLI::App* const command = app.add_subcommand(
        "clean", "Remove rings, lock files of blocks and semaphores that nobody uses any more");
    command
        ->add_option("NAME", options->names,
                     "Names of rings, blocks or semaphores; none: all that nobody uses")
        ->option_text(" ");
    command
        ->add_option("--older-than", options->olderThan, "Only what was made longer ago than this")
        ->check(CLI::NonNegativeNumber)
        ->option_text("SECONDS");
    command->add_flag("--dry-run", options->dryRun, "List them, and remove nothing");
    command->add_flag("--yes", options->yes, "Do not ask");
    command->footer(
        "Lists what nobody has open or mapped, with the memory it takes, its age and what is "
        "still\n"
        "in a ring; asks, looks at each once more, and removes it. What a process that cannot be\n"
        "seen may use is kept. A ring that was reserved and not yet opened, and a file that only\n"
        "has the name of a ring or lock file, is removed only if it is named.\n"
        "\n"
        "Semaphores carry no mark of who made them: other programs' are among those listed.\n"
        "\n"
        "Exit status: 0 if all was removed, 1 if anything named or listed was kept, 2 for bad\n"
        "arguments.\n"
        "\n"
        "Examples:\n"
        "  qev clean --dry-run\n"
        "  qev clean camera --yes\n"
        "  qev clean --older-than 86400 --yes");
    return {command, [options] { return RunClean(*options); }};
}

}  // namespace qel
