// A process that uses a named semaphore is killed before and after each system call that it makes.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <csignal>
#include <memory>

#include "ChildProcess.h"
#include "DeathTable.h"
#include "DyingSys.h"
#include "Leftovers.h"
#include "NamedSemaphore.h"
#include "ProcessState.h"
#include "SemaphoreMultiLockHelper.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

/// A process's handle on the semaphore.
struct Handle {
    std::string name;
    std::shared_ptr<DyingSys> sys;
    std::unique_ptr<NamedSemaphore> semaphore{};

    void Open() { semaphore = std::make_unique<NamedSemaphore>(name, sys, 3); }
};

struct SemaphoreScene {
    const char* name;
    const char* title;
    int units;  ///< in the semaphore beforehand, -1 if there is none
    void (*prepare)(Handle& handle);
    void (*act)(Handle& handle);
};

void Open(Handle& handle) {
    handle.Open();
}

template <int kCount>
void Take(Handle& handle) {
    handle.Open();
    for (int i = 0; i < kCount; ++i) {
        handle.semaphore->Wait();
    }
}

template <int kCount>
void Post(Handle& handle) {
    handle.Open();
    for (int i = 0; i < kCount; ++i) {
        handle.semaphore->Post();
    }
}

void Go(Handle& handle) {
    handle.semaphore.reset();
}

const std::vector<SemaphoreScene>& SemaphoreScenes() {
    static const std::vector<SemaphoreScene> scenes{
        {"MakingIt", "makes a semaphore of 3 units", -1, [](Handle&) {}, &Open},
        {"OpeningIt", "opens a semaphore of 3 units", 3, [](Handle&) {}, &Open},
        {"AskingForItsValue", "asks for the value, 3", 3, &Open,
         [](Handle& handle) { (void)handle.semaphore->GetValue(); }},
        {"Waiting", "takes a unit of 3 by `Wait`", 3, &Open,
         [](Handle& handle) { handle.semaphore->Wait(); }},
        {"TimedWaiting", "takes a unit of 3 by `TimedWait`", 3, &Open,
         [](Handle& handle) { handle.semaphore->TimedWait(std::chrono::hours(1)); }},
        {"TryingToWait", "takes a unit of 3 by `TryWait`", 3, &Open,
         [](Handle& handle) { (void)handle.semaphore->TryWait(); }},
        {"Posting", "posts to a semaphore of 3 units", 3, &Open,
         [](Handle& handle) { handle.semaphore->Post(); }},
        {"ClosingIt", "destroys its handle, balance 0", 3, &Open, &Go},
        {"GivingBack", "destroys its handle, having taken 2 units of 3", 3, &Take<2>, &Go},
        {"TakingBack", "destroys its handle, having posted 2 to 3 units", 3, &Post<2>, &Go},
        {"LockingAll", "takes 3 units of 3 by `Lock`", 3, &Open,
         [](Handle& handle) {
             SemaphoreMultiLockHelper{*handle.semaphore, 3}.Lock();
         }},
        {"TryingToLockAll", "takes 3 units of 3 by `TryLock`", 3, &Open,
         [](Handle& handle) {
             (void)SemaphoreMultiLockHelper{*handle.semaphore, 3}.TryLock();
         }},
        {"TryingToLockTooMany", "is refused 3 units of 2 by `TryLock`", 2, &Open,
         [](Handle& handle) {
             (void)SemaphoreMultiLockHelper{*handle.semaphore, 3}.TryLock();
         }},
        {"UnlockingAll", "gives 3 units back by `Unlock`", 3, &Take<3>, [](Handle& handle) {
             SemaphoreMultiLockHelper{*handle.semaphore, 3}.Unlock();
         }}};
    return scenes;
}

PublishedTable SemaphoreTable() {
    std::vector<std::string> titles;
    for (const SemaphoreScene& scene : SemaphoreScenes()) {
        titles.emplace_back(scene.title);
    }
    return DeathTable("semaphore deaths", "fault_semaphore_deaths", titles);
}

/// Units that a process which comes now can take without waiting.
int UnitsToTake(const std::string& name) {
    const std::string said = InChild([&] {
        const NamedSemaphore semaphore(name, 0);
        int units = 0;
        while (semaphore.TryWait()) {
            ++units;
        }
        return std::to_string(units);
    });
    return said.empty() ? -1 : std::stoi(said);
}

std::string Plural(int units) {
    return std::to_string(units) + (units == 1 ? " unit" : " units");
}

/// @param units  that the semaphore has when nobody holds any
Outcome OutcomeOf(const std::string& name, int units) {
    const std::vector<std::string> files = FilesNamed(name.substr(1));
    if (files.empty()) {
        EXPECT_EQ(units, -1);
        return {"nothing", "no semaphore; it makes one",
                "`qev sem show NAME`: `cannot open semaphore`", "-"};
    }
    EXPECT_EQ(files, std::vector<std::string>{"/dev/shm/sem." + name.substr(1)});
    const int left = NamedSemaphore(name, 99).GetValue();
    EXPECT_EQ(UnitsToTake(name), left) << "a unit counts that cannot be taken";
    EXPECT_EQ(NamedSemaphore(name, 99).GetValue(), left) << "the next process gives back all";
    const int fair = units == -1 ? 3 : units;
    Outcome outcome{"the value " + std::to_string(left), Plural(left), "-", "-"};
    if (left != fair) {
        outcome.see = "`qev sem show NAME`: `value " + std::to_string(left) + "`";
        const std::string count = " --count " + std::to_string(std::abs(left - fair)) + "`";
        outcome.next += left < fair ? ", " + std::to_string(fair - left) + " too few"
                                    : ", " + std::to_string(left - fair) + " too many";
        outcome.right = (left < fair ? "`qev sem post NAME" : "`qev sem try NAME") + count;
    }
    return outcome;
}

class AUserOfASemaphore : public ::testing::TestWithParam<SemaphoreScene> {
protected:
    /// Starts a process that acts on a semaphore of its own once `plan` has been made.
    template <typename Plan>
    static std::unique_ptr<ChildProcess> Act(const UniqueSemaphoreName& name, const Plan& plan) {
        const SemaphoreScene& scene = GetParam();
        auto process = std::make_unique<ChildProcess>([&](const Conversation& parent) {
            Handle handle{name.Name(), std::make_shared<DyingSys>()};
            scene.prepare(handle);
            plan(*handle.sys);
            handle.sys->Start();
            scene.act(handle);
            for (const std::string& call : handle.sys->Calls()) {
                parent.Say(call);
            }
            parent.Say("");
            ::_exit(0);  // its handle must not settle
            return 0;
        });
        return process;
    }
    static void Prepare(const UniqueSemaphoreName& name) {
        if (GetParam().units >= 0) {
            const NamedSemaphore made(name.Name(), static_cast<unsigned>(GetParam().units));
        }
    }
    static std::vector<std::string> Rehearse() {
        const UniqueSemaphoreName name;
        Prepare(name);
        const auto process = Act(name, [](DyingSys&) {});
        std::vector<std::string> calls;
        for (std::string call = process->Hear(); !call.empty(); call = process->Hear()) {
            calls.push_back(call);
        }
        EXPECT_EQ(process->ExitCode(), 0);
        return calls;
    }
    template <typename Plan>
    static Outcome OutcomeAfter(const Plan& plan) {
        const UniqueSemaphoreName name;
        Prepare(name);
        const auto process = Act(name, plan);
        const int status = process->Wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        return OutcomeOf(name.Name(), GetParam().units);
    }
};

TEST_P(AUserOfASemaphore, KilledBeforeOrAfterAnyCallLeavesWhatIsPublished) {
    DeathRows rows;
    const std::vector<std::string> calls = Rehearse();
    ASSERT_FALSE(calls.empty());
    for (std::size_t call = 0; call < calls.size(); ++call) {
        SCOPED_TRACE("call " + std::to_string(call) + ", " + calls[call]);
        rows.AddBeforeNext(OutcomeAfter([call](DyingSys& sys) { sys.KillBefore(call); }));
        const std::string which = calls[call] + " " + std::to_string(call + 1);
        rows.Add(calls.size() > 1 ? which : calls[call],
                 OutcomeAfter([call](DyingSys& sys) { sys.KillAfter(call); }));
    }
    rows.ExpectPublished(SemaphoreTable(), GetParam().title);
}

INSTANTIATE_TEST_SUITE_P(While, AUserOfASemaphore, ::testing::ValuesIn(SemaphoreScenes()),
                         [](const auto& scene) { return scene.param.name; });

TEST(TheTableOfSemaphoreDeaths, HoldsWhatIsMeasuredAndNothingElse) {
    SemaphoreTable().ExpectNothingElse();
}

struct Waiting {
    const char* name;
    void (*wait)(NamedSemaphore& semaphore);
};

class SemaphoreWaiters : public ::testing::Test {
protected:
    std::unique_ptr<ChildProcess> Start(const Waiting& waiting) const {
        auto process = std::make_unique<ChildProcess>([&](const Conversation& parent) {
            NamedSemaphore semaphore(name_.Name(), 0);
            waiting.wait(semaphore);
            parent.Say("taken");
            (void)parent.Hear();
            return 0;
        });
        EXPECT_TRUE(AwaitBlocked(process->Pid(), SYS_futex));
        return process;
    }

    UniqueSemaphoreName name_;
};

class AWaitingProcess : public SemaphoreWaiters, public ::testing::WithParamInterface<Waiting> {};

TEST_P(AWaitingProcess, ThatIsKilledTakesNoUnitFromTheNext) {
    const NamedSemaphore semaphore(name_.Name(), 0);
    const auto dead = Start(GetParam());
    const auto next = Start({"", [](NamedSemaphore& handle) { handle.Wait(); }});
    dead->Kill();
    EXPECT_EQ(dead->ExitCode(), -1);
    EXPECT_EQ(semaphore.GetValue(), 0);

    semaphore.Post();

    EXPECT_EQ(next->Hear(), "taken");
    next->Say("end");
    EXPECT_EQ(next->ExitCode(), 0);
    EXPECT_EQ(semaphore.GetValue(), 1);
}

using ACollectingProcess = SemaphoreWaiters;

// What it has collected is lost, which no other process can tell from units in use.
TEST_F(ACollectingProcess, ThatIsKilledBetweenItsTakesKeepsWhatItHas) {
    const NamedSemaphore semaphore(name_.Name(), 2);
    const auto dead = Start({"", [](NamedSemaphore& handle) {
                                 SemaphoreMultiLockHelper{handle, 3}.Lock();
                             }});
    EXPECT_EQ(semaphore.GetValue(), 0);
    dead->Kill();
    EXPECT_EQ(dead->ExitCode(), -1);

    EXPECT_EQ(semaphore.GetValue(), 0);
    EXPECT_EQ(UnitsToTake(name_.Name()), 0);
}

INSTANTIATE_TEST_SUITE_P(
    In, AWaitingProcess,
    ::testing::Values(Waiting{"Wait", [](NamedSemaphore& semaphore) { semaphore.Wait(); }},
                      Waiting{"TimedWait",
                              [](NamedSemaphore& semaphore) {
                                  semaphore.TimedWait(std::chrono::hours(1));
                              }},
                      Waiting{"Lock",
                              [](NamedSemaphore& semaphore) {
                                  SemaphoreMultiLockHelper{semaphore, 2}.Lock();
                              }}),
    [](const auto& waiting) { return waiting.param.name; });

}  // namespace
}  // namespace qel::test
