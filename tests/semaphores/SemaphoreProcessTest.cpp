// Semaphores between processes. What another process does is awaited by what can be seen of it:
// a message, its blocking, its end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>

#include "ChildProcess.h"
#include "NamedSemaphore.h"
#include "ProcessState.h"
#include "SemaphoreMultiLockHelper.h"
#include "SysFactory.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

class SemaphoreBetweenProcesses : public testing::Test {
protected:
    [[nodiscard]] const std::string& Name() const { return name_.Name(); }

    /// Kills a process that has done `action` with a handle.
    template <typename Action>
    void KillAfter(const Action& action) const {
        ChildProcess child([&](const Conversation& parent) {
            const NamedSemaphore handle(Name(), 0);
            action(handle);
            parent.Say("done");
            (void)parent.Hear();
            return 0;
        });
        EXPECT_EQ(child.Hear(), "done");
        child.Kill();
        EXPECT_EQ(child.ExitCode(), -1);
    }

    const UniqueSemaphoreName name_;
};

TEST_F(SemaphoreBetweenProcesses, SignalsInBothDirections) {
    constexpr int kRounds = 200;
    const UniqueSemaphoreName answers;
    ChildProcess child([&](const Conversation& parent) {
        const NamedSemaphore answer(answers.Name(), 0);
        const NamedSemaphore question(Name(), 0);
        for (int i = 0; i < kRounds; ++i) {
            question.Wait();
            answer.Post();
        }
        parent.Say("all answered");
        return parent.Hear() == "end" ? 0 : 1;
    });
    {
        const NamedSemaphore question(Name(), 0);
        const NamedSemaphore answer(answers.Name(), 0);
        for (int i = 0; i < kRounds; ++i) {
            question.Post();
            answer.TimedWait(std::chrono::hours(1));
            EXPECT_FALSE(answer.TryWait());
            EXPECT_EQ(question.GetValue(), 0);
        }
        EXPECT_EQ(child.Hear(), "all answered");
        child.Say("end");
    }
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(NamedSemaphore(Name(), 0).GetValue(), 0);
    EXPECT_EQ(NamedSemaphore(answers.Name(), 0).GetValue(), 0);
}

TEST_F(SemaphoreBetweenProcesses, EndOfAHandleWaitsUntilUnitsThatItGaveComeBack) {
    const NamedSemaphore semaphore(Name(), 0);
    ChildProcess child([&](const Conversation& parent) {
        {
            const NamedSemaphore giver(Name(), 0);
            giver.Post();
            giver.Post();
            parent.Say("given");
            (void)parent.Hear();
        }
        parent.Say("settled");
        return 0;
    });
    ASSERT_EQ(child.Hear(), "given");
    semaphore.Wait();
    semaphore.Wait();
    child.Say("end the handle");
    ASSERT_TRUE(AwaitBlocked(child.Pid(), SYS_futex));
    EXPECT_EQ(semaphore.GetValue(), 0);

    semaphore.Post();
    ASSERT_TRUE(AwaitBlocked(child.Pid(), SYS_futex));
    semaphore.Post();
    EXPECT_EQ(child.Hear(), "settled");
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(semaphore.GetValue(), 0);
}

TEST_F(SemaphoreBetweenProcesses, EndOfAHandleGivesTakenUnitsToWhoeverWaits) {
    const NamedSemaphore semaphore(Name(), 3);
    ChildProcess child([&](const Conversation& parent) {
        const NamedSemaphore taker(Name(), 0);
        taker.Wait();
        taker.TimedWait(std::chrono::hours(1));
        if (!taker.TryWait()) {
            return 1;
        }
        parent.Say("taken");
        (void)parent.Hear();
        return 0;
    });
    ASSERT_EQ(child.Hear(), "taken");
    EXPECT_FALSE(semaphore.TryWait());
    child.Say("end the handle");
    semaphore.Wait();
    semaphore.Wait();
    semaphore.Wait();
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(semaphore.GetValue(), 0);
}

TEST_F(SemaphoreBetweenProcesses, KilledProcessGivesNothingBack) {
    const NamedSemaphore semaphore(Name(), 3);
    KillAfter([](const NamedSemaphore& taker) {
        taker.Wait();
        taker.Wait();
    });
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST_F(SemaphoreBetweenProcesses, KilledProcessTakesNothingBack) {
    const NamedSemaphore semaphore(Name(), 0);
    KillAfter([](const NamedSemaphore& giver) {
        giver.Post();
        giver.Post();
    });
    EXPECT_EQ(semaphore.GetValue(), 2);
}

TEST_F(SemaphoreBetweenProcesses, LockOfAllUnitsExcludesOtherProcesses) {
    NamedSemaphore semaphore(Name(), 3);
    SemaphoreMultiLockHelper all{semaphore, 3};
    all.Lock();
    ChildProcess child([&](const Conversation& parent) {
        NamedSemaphore others(Name(), 0);
        SemaphoreMultiLockHelper two{others, 2};
        if (others.TryWait() || two.TryLock()) {
            return 1;
        }
        parent.Say("refused");
        two.Lock();
        parent.Say("locked");
        return parent.Hear() == "end" ? 0 : 2;
    });
    ASSERT_EQ(child.Hear(), "refused");
    ASSERT_TRUE(AwaitBlocked(child.Pid(), SYS_futex));
    all.Unlock();
    EXPECT_EQ(child.Hear(), "locked");
    EXPECT_EQ(semaphore.GetValue(), 1);
    child.Say("end");
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(semaphore.GetValue(), 3);
}

// The conversation of the process that is signalled.
const Conversation* signalled = nullptr;

void TellOfSignal(int /*signal*/) {
    signalled->Say("s");
}

void CatchSignal() {
    struct sigaction action {};
    action.sa_handler = TellOfSignal;  // without SA_RESTART: a wait is interrupted
    ::sigaction(SIGUSR1, &action, nullptr);
}

struct WaitingOperation {
    const char* name;
    void (*wait)(const NamedSemaphore&);
};

class WaitUnderSignals : public SemaphoreBetweenProcesses,
                         public testing::WithParamInterface<WaitingOperation> {};

TEST_P(WaitUnderSignals, GoesOnUntilAUnitComes) {
    const NamedSemaphore semaphore(Name(), 0);
    ChildProcess child([&](const Conversation& parent) {
        signalled = &parent;
        CatchSignal();
        const NamedSemaphore waiter(Name(), 0);
        parent.Say("ready");
        GetParam().wait(waiter);
        parent.Say("taken");
        return 0;
    });
    ASSERT_EQ(child.Hear(), "ready");
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(AwaitBlocked(child.Pid(), SYS_futex));
        ASSERT_EQ(::kill(child.Pid(), SIGUSR1), 0);
        ASSERT_EQ(child.Hear(), "s");
    }
    ASSERT_TRUE(AwaitBlocked(child.Pid(), SYS_futex));
    semaphore.Post();
    EXPECT_EQ(child.Hear(), "taken");
    EXPECT_EQ(child.ExitCode(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Operations, WaitUnderSignals,
    testing::Values(WaitingOperation{"Wait",
                                     [](const NamedSemaphore& semaphore) { semaphore.Wait(); }},
                    WaitingOperation{"TimedWait",
                                     [](const NamedSemaphore& semaphore) {
                                         semaphore.TimedWait(std::chrono::hours(1));
                                     }}),
    [](const auto& row) { return row.param.name; });

// Only the handle goes on after a signal.
TEST_F(SemaphoreBetweenProcesses, WaitOfTheSystemCallsThemselvesEndsWithASignal) {
    const auto sys = SysFactory::Create("");
    sem_t* const semaphore = sys->sem_openc(Name().c_str(), O_CREAT, 0600, 0);
    ASSERT_NE(semaphore, SEM_FAILED);
    ChildProcess child([&](const Conversation& parent) {
        signalled = &parent;
        CatchSignal();
        parent.Say("ready");
        const int result = sys->sem_wait(semaphore);
        const int error = errno;
        parent.Say(std::to_string(result) + " " + std::strerror(error));
        return 0;
    });
    EXPECT_EQ(child.Hear(), "ready");
    EXPECT_TRUE(AwaitBlocked(child.Pid(), SYS_futex));
    EXPECT_EQ(::kill(child.Pid(), SIGUSR1), 0);
    EXPECT_EQ(child.Hear(), "s");
    EXPECT_EQ(sys->sem_post(semaphore), 0);  // too late: the wait has been interrupted
    EXPECT_EQ(child.Hear(), "-1 Interrupted system call");
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(sys->sem_close(semaphore), 0);
}

}  // namespace
}  // namespace qel::test
