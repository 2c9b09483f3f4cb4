#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <vector>

namespace qel {

/// A verb of the command: its place on the command line, and what it does once that is parsed.
struct Verb {
    CLI::App* command;
    std::function<int()> run;  ///< returns the exit status
};

/// Each adds its verb or verbs with all options to `app`.
Verb AddPipelineVerb(CLI::App& app);
Verb AddProduceVerb(CLI::App& app);
Verb AddNodeVerb(CLI::App& app);
Verb AddConsumeVerb(CLI::App& app);
Verb AddLsVerb(CLI::App& app);
Verb AddInspectVerb(CLI::App& app);
Verb AddTopVerb(CLI::App& app);
Verb AddDoctorVerb(CLI::App& app);
Verb AddRepairVerb(CLI::App& app);
Verb AddCleanVerb(CLI::App& app);
Verb AddReserveVerb(CLI::App& app);
Verb AddSealVerb(CLI::App& app);
Verb AddRecordVerb(CLI::App& app);
Verb AddReplayVerb(CLI::App& app);
Verb AddExportVerb(CLI::App& app);
std::vector<Verb> AddBlockVerbs(CLI::App& app);
std::vector<Verb> AddSemVerbs(CLI::App& app);

}  // namespace qel
