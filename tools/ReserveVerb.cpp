#include <charconv>
#include <memory>

#include "Accounts.h"
#include "CommandLine.h"
#include "Reserve.h"
#include "RingRules.h"
#include "Signals.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct ReserveOptions {
    std::string name;
    std::uint64_t size = 0;
    std::string owner;
    std::string group;
    std::string mode;
    const CLI::Option* ownerOption = nullptr;
    const CLI::Option* groupOption = nullptr;
    const CLI::Option* modeOption = nullptr;
};

/// Permissions and no more: an object is not executed.
mode_t ModeIn(const std::string& text) {
    constexpr unsigned kAll = 0777;
    constexpr int kOctal = 8;
    unsigned mode = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, mode, kOctal);
    if (error != std::errc() || rest != end || mode > kAll) {
        throw UsageError("--mode: " + text + " is not an octal number from 0 to 0777");
    }
    return mode;
}

Reservation WantedBy(const ReserveOptions& options) {
    RequireOrUsage([&] {
        RequireRingName(options.name);
        RequireRingSize(options.size);
    });
    Reservation wanted;
    wanted.name = options.name;
    wanted.size = options.size;
    if (!options.modeOption->empty()) {
        wanted.mode = ModeIn(options.mode);
    }
    if (!options.ownerOption->empty()) {
        wanted.owner = UserNumber(options.owner);
    }
    if (!options.groupOption->empty()) {
        wanted.group = GroupNumber(options.group);
    }
    return wanted;
}

int RunReserve(const ReserveOptions& options) {
    const Reservation wanted = WantedBy(options);
    Signals::Catch();
    const auto text = Reserve(wanted, Signals::Any);
    if (!text) {
        return ExitInterrupted(Signals::First());
    }
    Print(OneLine(*text) + "\n");
    return 0;
}

}  // namespace

Verb AddReserveVerb(CLI::App& app) {
    const auto options = std::make_shared<ReserveOptions>();
    CLI::App* const command =
        app.add_subcommand("reserve", "Make a ring's object beforehand, with all its memory");
    command->add_option("NAME", options->name, "Name of the ring that is to be made")
        ->required()
        ->option_text(" ");
    AddBytesOption(*command, "--size", options->size,
                   "Size of the ring; KiB, MiB and so on allowed")
        ->required()
        ->option_text("BYTES");
    options->ownerOption =
        command->add_option("--owner", options->owner, "User that owns it, by name or number")
            ->option_text("USER");
    options->groupOption =
        command
            ->add_option("--group", options->group, "Group that it belongs to, by name or number")
            ->option_text("GROUP");
    options->modeOption = command
                              ->add_option("--mode", options->mode,
                                           "Its permissions, exactly; otherwise 0666 less umask")
                              ->option_text("OCTAL");
    command->footer(
        "Otherwise whoever opens a ring first makes it, with the owner, group and umask of that\n"
        "process, and memory may come page by page: where /dev/shm is full, a process that\n"
        "writes to a missing page dies of SIGBUS. Here the lack of memory is an error. Nothing\n"
        "is left behind when anything fails, and a ring that is there is never touched. The\n"
        "ring is fresh: who opens it first initialises it and sets its packet limit.\n"
        "\n"
        "All who open the ring must give the same size: the library itself gives the object the\n"
        "length that whoever comes last asks for.\n"
        "\n"
        "Where fs.protected_regular is not 0, others than the owner can open a ring only if\n"
        "root owns it: for several users, let root own it and share it by --group and --mode.\n"
        "\n"
        "Examples:\n"
        "  qev reserve camera0 --size 64MiB\n"
        "  qev reserve camera0 --size 64MiB --owner root --group video --mode 0660");
    return {command, [options] { return RunReserve(*options); }};
}

}  // namespace qel
