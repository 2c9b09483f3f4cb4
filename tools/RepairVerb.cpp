#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include "BlockCheck.h"
#include "CommandLine.h"
#include "Confirm.h"
#include "Finding.h"
#include "ObjectCheck.h"
#include "ObjectNames.h"
#include "RingRepair.h"
#include "RingRules.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct RepairOptions {
    std::string name;
    unsigned nodes = 0;
    std::uint32_t maxFrames = 0;
    CLI::Option* maxFramesOption = nullptr;
    bool force = false;
    bool yes = false;
    bool dryRun = false;
};

std::string PlanText(const RingRepairPlan& plan) {
    std::string text;
    for (const std::string& change : plan.Changes()) {
        text += change + "\n";
    }
    for (const std::string& remark : plan.remarks) {
        text += remark + "\n";
    }
    return text;
}

/// Why nobody may change the ring now; empty if one may.
std::string WhoIsThere(const RingFile& ring) {
    const RingUsers users = RingUsers::Of(ring, ProcessSurvey::Take());
    if (!users.users.empty()) {
        return WithVerb(users.users, "uses it", "use it");
    }
    return users.HiddenText() + (users.isAnybody || !users.MayBeHidden() ? "" : " and may use it");
}

[[noreturn]] void Refuse(const std::string& name, const std::string& why,
                         const std::string& instead) {
    throw std::runtime_error(
        fmt::format("ring {} was not changed: {}; {}", OneLine(name), why, instead));
}

RingRepairPlan PlanFor(const RingFile& ring, const RepairOptions& options) {
    RingRepairOptions repair;
    if (options.nodes != 0) {
        repair.nodes = options.nodes;
    }
    if (options.maxFramesOption->count() > 0) {
        repair.maxFrames = options.maxFrames;
    }
    RingRepairPlan plan = PlanRepair(ring, repair);
    if (!plan.CanBeDone()) {
        Refuse(options.name, plan.refusal, "try " + plan.instead);
    }
    return plan;
}

int RepairRing(const RingFile& ring, const RepairOptions& options) {
    const std::string ringText = "ring " + OneLine(options.name);
    if (options.dryRun) {
        const RingRepairPlan plan = PlanFor(ring, options);
        const std::string who = WhoIsThere(ring);
        Print(PlanText(plan) +
              (plan.Changes().empty() ? ringText + ": nothing is to be done\n"
                                      : ringText + ": nothing was changed\n") +
              (who.empty() ? "" : who + "\n"));
        return 0;
    }
    const std::string who = WhoIsThere(ring);
    if (!who.empty() && !options.force) {
        Refuse(options.name, who, "stop all of its nodes first");
    }
    if (!who.empty() && !options.yes) {
        Confirm(
            fmt::format("{}. What they hold will be delivered again or be lost. Change ring {} "
                        "all the same?",
                        who, OneLine(options.name)));
    }
    const RingHold hold(ring, who.empty() ? RingHold::IfInUse::Refuse : RingHold::IfInUse::GoOn);
    const RingRepairPlan plan = PlanFor(ring, options);
    if (plan.Changes().empty()) {
        Print(PlanText(plan) + ringText + ": nothing is to be done\n");
        return 0;
    }
    const RingUsers late = RingUsers::Of(ring, ProcessSurvey::Take());
    if (!late.users.empty() && !options.force) {
        Refuse(options.name, WithVerb(late.users, "has come", "have come"),
               "stop all of its nodes first");
    }
    hold.Apply(plan);
    Print(PlanText(plan) + ringText + ": put right\n");
    return 0;
}

/// A block is not put right by hand; the doctor says what does it.
int AdviseOnBlock(const std::string& name) {
    std::string text;
    for (const Finding& finding : CheckBlock(name, ProcessSurvey::Take()).findings) {
        text +=
            fmt::format("; {}{}", finding.text, finding.mend.empty() ? "" : ": " + finding.mend);
    }
    throw std::runtime_error(
        fmt::format("block {} is not put right from here{}", OneLine(name), text));
}

int RunRepair(const RepairOptions& options) {
    RequireOrUsage([&] { RequireRingName(options.name); });
    if (const auto ring = RingFile::Open(options.name)) {
        return RepairRing(*ring, options);
    }
    const auto blocks = BlockNames();
    if (std::find(blocks.begin(), blocks.end(), options.name) != blocks.end()) {
        return AdviseOnBlock(options.name);
    }
    throw std::runtime_error("there is no ring " + OneLine(options.name));
}

}  // namespace

Verb AddRepairVerb(CLI::App& app) {
    const auto options = std::make_shared<RepairOptions>();
    CLI::App* const command = app.add_subcommand(
        "repair", "Put a ring right that a dead process has left in the middle of something");
    command->add_option("NAME", options->name, "Name of the ring")->required()->option_text(" ");
    command
        ->add_option("--nodes", options->nodes,
                     "Nodes of the chain; asked for where the ring does not tell")
        ->check(CLI::Range(2U, 5U))
        ->option_text("N");
    options->maxFramesOption =
        command
            ->add_option("--max-frames", options->maxFrames,
                         "Limit to be set, as the chain's processes give it; else it stays")
            ->option_text("N");
    command->add_flag("--dry-run", options->dryRun, "Say what would be done, and change nothing");
    command->add_flag("--force", options->force,
                      "Do it though processes use the ring or cannot be seen, after asking");
    command->add_flag("--yes", options->yes, "Do not ask");
    command->footer(
        "All nodes must be stopped, and stay away until it is done: openers that go by OpenRing\n"
        "wait or are refused. The read indices hold; counters, the writer's index and numPackets\n"
        "are set by the records that stand in the ring, so that the fewest packets are lost. What\n"
        "is changed is said field by field, and what is lost or kept. A ring that cannot be put\n"
        "right is left as it is, and it is said why.\n"
        "\n"
        "Examples:\n"
        "  qev repair camera --dry-run\n"
        "  qev repair camera --nodes 3");
    return {command, [options] { return RunRepair(*options); }};
}

}  // namespace qel
