#include "FaultyRun.h"

#include <cxxabi.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <typeinfo>

#include "CallFaults.h"
#include "CapturedLog.h"
#include "CapturedOutput.h"
#include "FaultySys.h"
#include "ProcessState.h"

namespace qel::test {
namespace {

int Threads() {
    int threads = 0;
    DIR* const directory = ::opendir("/proc/self/task");
    while (const dirent* entry = ::readdir(directory)) {
        threads += entry->d_name[0] != '.' ? 1 : 0;
    }
    ::closedir(directory);
    return threads;
}

/// All that a run must leave as it was. Mappings are counted by object, since memory for other ends
/// comes and goes.
struct Possessions {
    explicit Possessions(const Names& names)
        : descriptors(HoldingsOf("").descriptors),
          ring(HoldingsOf(names.ring.Name())),
          block(HoldingsOf(names.block.Name())),
          semaphore(HoldingsOf(names.semaphore.Name().substr(1))),
          threads(Threads()) {}

    int descriptors;
    Holdings ring;
    Holdings block;
    Holdings semaphore;
    int threads;
};

void ExpectSame(const Possessions& now, const Possessions& before) {
    EXPECT_EQ(now.descriptors, before.descriptors);
    EXPECT_EQ(now.ring, before.ring) << now.ring.mappings << " mappings of the ring";
    EXPECT_EQ(now.block, before.block) << now.block.mappings << " mappings of the block";
    EXPECT_EQ(now.semaphore, before.semaphore);
    EXPECT_EQ(now.threads, before.threads);
}

std::string TypeOf(const std::exception& error) {
    int status = 0;
    char* const name = abi::__cxa_demangle(typeid(error).name(), nullptr, nullptr, &status);
    std::string text = name == nullptr ? typeid(error).name() : name;
    std::free(name);
    return text;
}

template <typename Operation>
std::string ResultOf(const Operation& operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        return "throws " + TypeOf(error) + ": " + error.what();
    }
}

/// The line of a lock file's record is not fixed.
std::string Shown(const LogRecord& record) {
    const auto category = static_cast<unsigned>(record.category);
    std::string text = std::to_string(static_cast<int>(record.level)) +
                       (category == 0x8010   ? " 8010 "
                        : category == 0x8027 ? " 8027 "
                                             : " ? ") +
                       record.sourcePath + " " + record.operation;
    if (category == 0x8010) {
        text += " " + std::to_string(record.line);
    }
    return text + ": " + record.text;
}

std::unique_ptr<Scenario> MakeScenario(const ScenarioMaker& make, const Names& names, Route route) {
    std::shared_ptr<SysIF> sys = std::make_shared<Sys>();
    if (route == Route::Interface) {
        sys = std::make_shared<FaultySys>();
    }
    return make({names, std::move(sys)});
}

void SetAliases(CallFaults& faults, const Names& names,
                const std::map<std::string, std::string>& marks) {
    faults.Alias("/memfd:" + names.block.MemoryName() + " (deleted)", "MEMORY");
    faults.Alias(names.block.LockPath(), "LOCK");
    faults.Alias(names.block.MemoryName(), "/BLOCK.shm");
    faults.Alias(names.ring.Path(), "RING");
    faults.Alias(names.ring.ObjectName(), "/RING.shm");
    faults.Alias(names.semaphore.Name(), "/SEMAPHORE");
    faults.Alias("sem." + names.semaphore.Name().substr(1), "sem.SEMAPHORE");
    if (const auto file = marks.find("{file}"); file != marks.end()) {
        faults.Alias(file->second, "ANNOUNCED");
    }
}

void Apply(CallFaults& faults, const Plan& plan) {
    if (plan.route == Route::Interface) {
        faults.IgnoreDirectCalls();
    }
    for (const Refusal& refusal : plan.refusals) {
        if (refusal.fault.error == 0) {
            faults.AnswerNth(refusal.operation, refusal.nth, refusal.fault.result);
        } else {
            faults.FailFrom(refusal.operation, refusal.nth, refusal.fault.error, refusal.calls);
        }
    }
}

std::map<std::string, std::string> AllMarks(const Scenario& scenario, const Names& names,
                                            const Plan& plan) {
    auto marks = scenario.Marks();
    const int error = plan.refusals.empty() ? 0 : plan.refusals.front().fault.error;
    marks["{errno}"] = std::to_string(error);
    marks["{strerror}"] = std::strerror(error);
    marks["{RING}"] = names.ring.Name();
    marks["{BLOCK}"] = names.block.MemoryName();
    marks["{LOCK}"] = names.block.LockPath();
    marks["{SEMAPHORE}"] = names.semaphore.Name();
    return marks;
}

/// The part of a run in which calls are refused.
void RunFaulty(Scenario& scenario, const Names& names, const Plan& plan, Report& report) {
    const CapturedLog log;
    const CapturedOutput output;
    CallFaults faults;
    SetAliases(faults, names, report.marks);
    Apply(faults, plan);

    report.outcome.result = ResultOf([&] { return scenario.Run(); });
    {
        const CallFaults::Unseen unrecorded;
        report.outcome.state = scenario.State();
    }
    if (plan.recover) {
        faults.Lift();
        report.recovered = ResultOf([&] { return scenario.Recover(); });
    }
    scenario.Destroy();
    faults.MakeUpForRefused();
    report.refusals = faults.Refusals();
    report.calls = faults.Calls();
    report.outcome.printed = output.Text();
    std::transform(log.Records().begin(), log.Records().end(),
                   std::back_inserter(report.outcome.logged), Shown);
}

}  // namespace

Report RunOnce(const ScenarioMaker& make, const Plan& plan) {
    const Names names;
    const auto scenario = MakeScenario(make, names, plan.route);
    const CapturedLog atFirst;
    scenario->Prepare();
    const Possessions before(names);
    scenario->Construct();
    Report report;
    report.marks = AllMarks(*scenario, names, plan);
    RunFaulty(*scenario, names, plan, report);
    report.canRecover = scenario->CanRecover();
    report.outcome.left = scenario->Left();
    ExpectSame(Possessions(names), before);
    if (::access(names.block.LockPath().c_str(), F_OK) == 0) {
        EXPECT_EQ(LockOn(names.block.LockPath()), Held::No);
    }
    const CapturedLog atLast;
    scenario->Again();
    return report;
}

void ExpectEndOfProcess(const ScenarioMaker& make, const Plan& plan) {
    const Names names;
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        const auto scenario = MakeScenario(make, names, plan.route);
        scenario->Prepare();
        scenario->Construct();
        Report report;
        report.marks = AllMarks(*scenario, names, plan);
        RunFaulty(*scenario, names, plan, report);
        ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "ended with " << status;
    EXPECT_EQ(LockOn(names.block.LockPath()), Held::No);
    const CapturedLog ignored;
    const auto scenario = MakeScenario(make, names, plan.route);
    scenario->Prepare();
    scenario->Again();
}

}  // namespace qel::test
