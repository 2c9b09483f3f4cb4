#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "HelpFormatter.h"
#include "Overview.h"
#include "Pages.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

int Complain(const std::string& who, const std::string& what, int status) {
    (void)std::fprintf(stderr, "%s: %s\n", who.c_str(), OneLine(what).c_str());
    return status;
}

std::string NameOf(const CLI::App& app) {
    const auto verbs = app.get_subcommands();
    return verbs.empty() ? app.get_name() : app.get_name() + " " + NameOf(*verbs.front());
}

/// A file that is opened later must not become a standard stream that was closed: messages would go
/// into it. What is put there can be used as little as what was closed.
void OccupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) == -1) {
            (void)open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

/// Some verbs have all rings of the machine open at a time.
void AllowManyFiles() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

std::vector<Verb> AddVerbs(CLI::App& app) {
    std::vector<Verb> verbs;
    for (Verb (*const add)(CLI::App&) :
         {AddPipelineVerb, AddProduceVerb, AddNodeVerb, AddConsumeVerb, AddLsVerb, AddInspectVerb,
          AddTopVerb, AddDoctorVerb, AddRepairVerb, AddCleanVerb, AddReserveVerb, AddSealVerb,
          AddRecordVerb, AddReplayVerb, AddExportVerb}) {
        verbs.push_back(add(app));
    }
    for (const auto& group : {AddBlockVerbs(app), AddSemVerbs(app)}) {
        verbs.insert(verbs.end(), group.begin(), group.end());
    }
    return verbs;
}

/// "-hd" would be taken for "-h", and a script believe that all went well.
void RefuseHelpJoinedToMore(int argc, char** argv) {
    for (const std::string& argument : std::vector<std::string>(argv + 1, argv + argc)) {
        if (argument == "--") {
            return;
        }
        if (argument.size() > 2 && argument.compare(0, 2, "-h") == 0) {
            throw CLI::ExtrasError({argument});
        }
    }
}

int Main(int argc, char** argv) {
    OccupyStandardStreams();
    AllowManyFiles();
    // The library reports on standard output, which belongs to data and summaries here.
    std::cout.flush();
    std::ostream out(std::cout.rdbuf(std::cerr.rdbuf()));

    CLI::App app("Shared memory between the processes of one device: rings, blocks and semaphores.",
                 "qev");
    app.set_version_flag("--version", "qev " QEV_VERSION);
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(kOverview);
    AddPagesOption(app);
    app.require_subcommand(1);
    const std::vector<Verb> verbs = AddVerbs(app);
    try {
        RefuseHelpJoinedToMore(argc, argv);
        app.parse(argc, argv);
        for (const Verb& verb : verbs) {
            if (verb.command->parsed()) {
                return verb.run();
            }
        }
    } catch (const CLI::Success& help) {
        return app.exit(help, out);
    } catch (const CLI::ParseError& refusal) {
        return Complain(NameOf(app), refusal.what(), kExitUsage);
    } catch (const UsageError& refusal) {
        return Complain(NameOf(app), refusal.what(), kExitUsage);
    } catch (const std::exception& failure) {
        return Complain(NameOf(app), failure.what(), kExitFailure);
    }
    return kExitUsage;
}

}  // namespace
}  // namespace qel

int main(int argc, char** argv) {
    return qel::Main(argc, argv);
}
