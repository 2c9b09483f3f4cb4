#include <fmt/format.h>
#include <sys/stat.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "ObjectName.h"
#include "Signals.h"
#include "SystemSemaphore.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct SemOptions {
    std::string name;
    int count = 1;
    double timeout = 0;  ///< seconds, if given
    const CLI::Option* timeoutOption = nullptr;
};

constexpr double kLongestTimeout = 1e9;

/// The name without the slash that may stand before it.
std::string BareName(const SemOptions& options) {
    std::string name = options.name.rfind('/', 0) == 0 ? options.name.substr(1) : options.name;
    RequireOrUsage([&] { RequireObjectName("semaphore", name, kLongestSemaphoreName); });
    return name;
}

std::optional<SystemSemaphore::Deadline> DeadlineOf(const SemOptions& options) {
    if (options.timeoutOption->empty()) {
        return std::nullopt;
    }
    const bool inRange =
        options.timeout >= 0 && options.timeout <= kLongestTimeout;  // no for a NaN
    if (!inRange) {
        throw UsageError(
            fmt::format("--timeout: {} is not in range 0 to {}", options.timeout, kLongestTimeout));
    }
    const std::chrono::duration<double> seconds(options.timeout);
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::nanoseconds>(seconds);
}

/// Units of a semaphore that go back unless they are kept.
class TakenUnits {
public:
    explicit TakenUnits(const SystemSemaphore& semaphore) : semaphore_(semaphore) {}
    ~TakenUnits() {
        try {
            for (; count_ > 0; --count_) {
                semaphore_.Post();
            }
        } catch (const std::exception&) {
            return;  // others have posted it full
        }
    }
    TakenUnits(const TakenUnits&) = delete;
    TakenUnits& operator=(const TakenUnits&) = delete;

    void Add() { ++count_; }
    void Keep() { count_ = 0; }
    [[nodiscard]] int Count() const { return count_; }

private:
    const SystemSemaphore& semaphore_;
    int count_ = 0;
};

/// Takes all units by `take`, or none.
/// @return how many were free
template <typename Take>
int TakeAll(const SystemSemaphore& semaphore, int count, const Take& take) {
    TakenUnits taken(semaphore);
    while (taken.Count() < count && take()) {
        taken.Add();
    }
    const int got = taken.Count();
    if (got == count) {
        taken.Keep();
    }
    return got;
}

int RunShow(const SemOptions& options) {
    const std::string name = BareName(options);
    const SystemSemaphore semaphore(name, SystemSemaphore::IfMissing::Refuse);
    std::string text =
        fmt::format("semaphore  /{}\nvalue      {}\n", OneLine(name), semaphore.Value());
    const std::string path = SystemSemaphore::PathOf(name);
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        constexpr unsigned kPermissions = 07777;
        text += fmt::format("file       {}, mode {:04o}, user {}, group {}\n", OneLine(path),
                            status.st_mode & kPermissions, status.st_uid, status.st_gid);
    }
    Print(text);
    return 0;
}

int RunPost(const SemOptions& options) {
    const SystemSemaphore semaphore(BareName(options), SystemSemaphore::IfMissing::Create);
    Signals::Catch();
    int posted = 0;
    try {
        for (; posted < options.count && !Signals::Any(); ++posted) {
            semaphore.Post();
        }
    } catch (const std::runtime_error& failure) {
        throw std::runtime_error(
            fmt::format("{}; {} of {} units posted", failure.what(), posted, options.count));
    }
    if (posted < options.count) {
        (void)std::fprintf(stderr, "qev sem post: interrupted; %d of %d units posted\n", posted,
                           options.count);
        return ExitInterrupted(Signals::First());
    }
    return 0;
}

int RunWait(const SemOptions& options) {
    const std::string name = BareName(options);
    const auto deadline = DeadlineOf(options);
    const SystemSemaphore semaphore(name, SystemSemaphore::IfMissing::Create);
    Signals::Catch();
    const StopPredicate interrupted = Signals::Any;
    const int got =
        TakeAll(semaphore, options.count, [&] { return semaphore.Take(deadline, interrupted); });
    if (got == options.count) {
        return 0;
    }
    if (Signals::Any()) {
        return ExitInterrupted(Signals::First());
    }
    throw std::runtime_error(
        fmt::format("semaphore /{}: {} of {} units came within {} s; none taken", name, got,
                    options.count, options.timeout));
}

int RunTry(const SemOptions& options) {
    const std::string name = BareName(options);
    const SystemSemaphore semaphore(name, SystemSemaphore::IfMissing::Refuse);
    Signals::Catch();
    int got = semaphore.Value();
    if (got >= options.count) {  // otherwise nothing is taken even for a moment
        got = TakeAll(semaphore, options.count,
                      [&] { return !Signals::Any() && semaphore.TryTake(); });
    }
    if (got == options.count) {
        return 0;
    }
    if (Signals::Any()) {
        return ExitInterrupted(Signals::First());
    }
    throw std::runtime_error(
        fmt::format("semaphore /{}: {} of {} units free; none taken", name, got, options.count));
}

/// An empty text would be taken for 0.
std::string RefuseIfEmpty(const std::string& text) {
    return text.empty() ? "Value is empty" : "";
}

using Options = std::shared_ptr<SemOptions>;

Verb AddSemVerb(CLI::App& group, const char* verb, const char* help, int (*run)(const SemOptions&),
                const Options& options) {
    CLI::App* const command = group.add_subcommand(verb, help);
    command->add_option("NAME", options->name, "Name of the semaphore, with or without its slash")
        ->required()
        ->option_text(" ");
    return {command, [options, run] { return run(*options); }};
}

void AddCount(const Verb& verb, const Options& options, const char* help) {
    verb.command->add_option("--count", options->count, help)
        ->check(CLI::Range(1, SEM_VALUE_MAX))
        ->option_text("N [1]");
}

Verb AddShowUnits(CLI::App& group) {
    Verb verb = AddSemVerb(group, "show", "Tell the value of a semaphore", RunShow,
                           std::make_shared<SemOptions>());
    verb.command->footer(
        "Changes nothing: it makes no semaphore, and takes and gives no unit.\n"
        "\n"
        "Examples:\n"
        "  qev sem show frames");
    return verb;
}

Verb AddPost(CLI::App& group) {
    const auto options = std::make_shared<SemOptions>();
    Verb verb = AddSemVerb(group, "post", "Give units to a semaphore", RunPost, options);
    AddCount(verb, options, "How many units");
    verb.command->footer(
        "The units stay when the command ends, unlike those that a handle of the library posts.\n"
        "A semaphore that is not there is made.\n"
        "\n"
        "Examples:\n"
        "  qev sem post frames --count 3");
    return verb;
}

Verb AddWait(CLI::App& group) {
    const auto options = std::make_shared<SemOptions>();
    Verb verb =
        AddSemVerb(group, "wait", "Take units of a semaphore, waiting for them", RunWait, options);
    AddCount(verb, options, "How many units: all or none");
    options->timeoutOption =
        verb.command
            ->add_option("--timeout", options->timeout, "Give up after so long, with status 1")
            ->check(CLI::Validator(RefuseIfEmpty, "", ""))
            ->option_text("SECONDS");
    verb.command->footer(
        "The units stay taken when the command ends. If it gives up or is interrupted, none\n"
        "are. They are collected one by one, so two that wait for several can starve each\n"
        "other. A semaphore that is not there is made.\n"
        "\n"
        "Exit status: 0 when the units are taken, 1 when they did not come in time or something\n"
        "failed, 2 for bad arguments, 128 + the signal's number when interrupted.\n"
        "\n"
        "Examples:\n"
        "  qev sem wait frames --timeout 2.5 && echo got one");
    return verb;
}

Verb AddTry(CLI::App& group) {
    const auto options = std::make_shared<SemOptions>();
    Verb verb =
        AddSemVerb(group, "try", "Take units of a semaphore if they are free", RunTry, options);
    AddCount(verb, options, "How many units: all or none");
    verb.command->footer(
        "The units stay taken when the command ends. A semaphore that is not there is not made.\n"
        "\n"
        "Exit status: 0 when the units are taken, 1 when fewer are free or something failed, 2\n"
        "for bad arguments, 128 + the signal's number when interrupted.\n"
        "\n"
        "Examples:\n"
        "  qev sem try frames --count 2 || echo too few");
    return verb;
}

}  // namespace

std::vector<Verb> AddSemVerbs(CLI::App& app) {
    CLI::App* const group = app.add_subcommand("sem", "Look at, post to or take from a semaphore");
    group->footer(
        "A semaphore keeps its units when all processes that used it have ended.\n"
        "\n"
        "Files:\n"
        "  /dev/shm/sem.NAME   the semaphore /NAME");
    group->require_subcommand(1);
    return {AddShowUnits(*group), AddPost(*group), AddWait(*group), AddTry(*group)};
}

}  // namespace qel
