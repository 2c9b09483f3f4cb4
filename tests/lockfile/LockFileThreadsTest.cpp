// A lock file between threads, and between objects that opened the same file.

#include <sys/file.h>
#include <sys/syscall.h>

#include <atomic>
#include <csignal>
#include <functional>

#include "ChildProcess.h"
#include "LockFileFixture.h"
#include "Worker.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LockFileBetweenThreads : public LockFileTest {
protected:
    Worker other_;
};

TEST_F(LockFileBetweenThreads, IsOneFlockForAllWhoShareIt) {
    OpenLockFile& lock = Make();

    lock.LockShared();
    other_.Do([&] { lock.LockShared(); });
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)"));

    lock.UnlockShared();
    EXPECT_EQ(LockOn(path_), Held::Shared);
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)"));

    other_.Do([&] { lock.UnlockShared(); });
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)", "flock(FILE, 8)"));
    ExpectFree();
}

TEST_F(LockFileBetweenThreads, AnswersATryWithoutAskingTheSystem) {
    OpenLockFile& lock = Make();
    const auto tryShared = [&] { return lock.TryLockShared(); };
    const auto tryExclusive = [&] { return lock.TryLockExclusive(); };

    lock.LockShared();
    faults_.ForgetCalls();
    EXPECT_FALSE(other_.Do(tryExclusive));
    EXPECT_TRUE(other_.Do(tryShared));
    EXPECT_THAT(Flocks(), IsEmpty());
    other_.Do([&] { lock.UnlockShared(); });
    lock.UnlockShared();

    lock.LockExclusive();
    faults_.ForgetCalls();
    EXPECT_FALSE(other_.Do(tryExclusive));
    EXPECT_FALSE(other_.Do(tryShared));
    EXPECT_THAT(Flocks(), IsEmpty());
    lock.UnlockExclusive();
    EXPECT_THAT(log_.Records(), IsEmpty());
    ExpectFree();
}

TEST_F(LockFileBetweenThreads, IsWaitedForInMemory) {
    struct Row {
        Operation held;
        Operation release;
        Operation wanted;
        Operation releaseWanted;
    };
    const auto& lockBy = LockOperations();
    const auto& unlockBy = UnlockOperations();
    const Row rows[] = {
        {lockBy[0], unlockBy[0], lockBy[1], unlockBy[1]},
        {lockBy[1], unlockBy[1], lockBy[0], unlockBy[0]},
        {lockBy[1], unlockBy[1], lockBy[1], unlockBy[1]},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.held.name) + " then " + row.wanted.name);
        OpenLockFile& lock = Make();
        row.held.run(lock);

        auto taken = other_.StartBlocked([&] { row.wanted.run(lock); }, SYS_futex);
        EXPECT_FALSE(IsReady(taken));
        row.release.run(lock);
        taken.get();

        other_.Do([&] { row.releaseWanted.run(lock); });
        ExpectFree();
    }
}

TEST_F(LockFileBetweenThreads, IsBusyForATryWhileAnotherThreadWaitsForTheFile) {
    OpenLockFile& lock = Make();
    auto foreign = std::make_optional<ForeignLock>(path_, LOCK_EX);
    auto taken = other_.StartBlocked([&] { lock.LockShared(); }, SYS_flock);
    ASSERT_FALSE(IsReady(taken));

    EXPECT_FALSE(lock.TryLockShared());
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)")) << "the waiting thread's";

    foreign.reset();
    taken.get();
    EXPECT_EQ(lock.SharedHolders(), 1);
    other_.Do([&] { lock.UnlockShared(); });
    ExpectFree();
}

TEST_F(LockFileBetweenThreads, IsReleasedWithoutWaitingForAThreadThatWaits) {
    OpenLockFile& lock = Make();
    lock.LockExclusive();
    auto taken = other_.StartBlocked([&] { lock.LockShared(); }, SYS_futex);
    ASSERT_FALSE(IsReady(taken));

    Worker third;
    auto released = third.StartBlocked([&] { lock.UnlockShared(); }, SYS_futex);
    EXPECT_TRUE(IsReady(released));

    lock.UnlockExclusive();
    taken.get();
    released.get();
    other_.Do([&] { lock.UnlockShared(); });
    ExpectFree();
}

TEST_F(LockFileBetweenThreads, IsNotWaitedForAfterASignal) {
    struct sigaction before {};
    struct sigaction action {};
    static std::atomic<int> signals{0};
    signals = 0;
    action.sa_handler = [](int /*signal*/) { ++signals; };  // without SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);

    for (const Operation& operation : {LockOperations()[0], LockOperations()[1]}) {
        SCOPED_TRACE(operation.name);
        OpenLockFile& lock = Make();
        auto foreign = std::make_optional<ForeignLock>(path_, LOCK_EX);
        log_.Forget();
        auto taken = other_.StartBlocked([&] { operation.run(lock); }, SYS_flock);
        ASSERT_FALSE(IsReady(taken));

        ::syscall(SYS_tgkill, ::getpid(), other_.Thread(), SIGUSR1);

        const std::string text = LockFailure(operation.name, "Interrupted system call");
        EXPECT_EQ(Thrown([&] { taken.get(); }), text);
        ExpectLogged(LogLevel::Error, operation.name, text);
        EXPECT_EQ(Flocks().size(), 1U) << "it was tried again";
        EXPECT_EQ(lock.SharedHolders(), 0);
        foreign.reset();
        ExpectFree();
    }
    EXPECT_EQ(signals, 2);
    ::sigaction(SIGUSR1, &before, nullptr);
}

enum class Where { AnotherObject, AnotherProcess };

class LockFileBetweenObjects : public LockFileTest, public ::testing::WithParamInterface<Where> {
protected:
    /// Runs `body` while a lock file of its own, in another object or process, holds the lock.
    void WhileHeld(bool exclusive, const std::function<void(const std::function<void()>&)>& body) {
        const auto hold = [exclusive](OpenLockFile& lock) {
            exclusive ? lock.LockExclusive() : lock.LockShared();
        };
        const auto release = [exclusive](OpenLockFile& lock) {
            exclusive ? lock.UnlockExclusive() : lock.UnlockShared();
        };
        if (GetParam() == Where::AnotherObject) {
            OpenLockFile holder(path_);
            hold(holder);
            body([&] { release(holder); });
            return;
        }
        ChildProcess child([&](const Conversation& parent) {
            OpenLockFile holder(path_);
            hold(holder);
            parent.Say("held");
            (void)parent.Hear();
            release(holder);
            parent.Say("released");
            (void)parent.Hear();
            return 0;
        });
        ASSERT_EQ(child.Hear(), "held");
        body([&] {
            child.Say("release");
            ASSERT_EQ(child.Hear(), "released");
        });
    }
};

TEST_P(LockFileBetweenObjects, AllowsManyReadersOrOneWriter) {
    for (const bool exclusive : {false, true}) {
        SCOPED_TRACE(exclusive ? "held exclusively" : "held shared");
        WhileHeld(exclusive, [&](const std::function<void()>& release) {
            OpenLockFile& lock = Make();
            EXPECT_EQ(lock.TryLockShared(), !exclusive);
            if (!exclusive) {
                lock.UnlockShared();
            }
            EXPECT_FALSE(lock.TryLockExclusive());
            release();
            ExpectFree();
        });
    }
}

TEST_P(LockFileBetweenObjects, IsWaitedForInTheSystem) {
    struct Row {
        bool heldExclusive;
        bool wantedExclusive;
    };
    for (const Row row : {Row{false, true}, Row{true, false}, Row{true, true}}) {
        SCOPED_TRACE(row.heldExclusive);
        SCOPED_TRACE(row.wantedExclusive);
        WhileHeld(row.heldExclusive, [&](const std::function<void()>& release) {
            OpenLockFile& lock = Make();
            Worker other;
            auto taken = other.StartBlocked(
                [&] { row.wantedExclusive ? lock.LockExclusive() : lock.LockShared(); }, SYS_flock);
            EXPECT_FALSE(IsReady(taken));
            release();
            taken.get();
            other.Do([&] { row.wantedExclusive ? lock.UnlockExclusive() : lock.UnlockShared(); });
            ExpectFree();
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Somewhere, LockFileBetweenObjects,
                         ::testing::Values(Where::AnotherObject, Where::AnotherProcess),
                         [](const auto& where) {
                             return where.param == Where::AnotherObject ? "AnotherObject"
                                                                        : "AnotherProcess";
                         });

TEST_F(LockFileTest, IsFreeAgainWhenItsHolderIsKilled) {
    ChildProcess child([&](const Conversation& parent) {
        OpenLockFile holder(path_);
        holder.LockExclusive();
        parent.Say("held");
        (void)parent.Hear();
        return 0;
    });
    ASSERT_EQ(child.Hear(), "held");
    OpenLockFile& lock = Make();
    Worker other;
    auto taken = other.StartBlocked([&] { lock.LockExclusive(); }, SYS_flock);
    EXPECT_FALSE(IsReady(taken));

    child.Kill();

    taken.get();
    other.Do([&] { lock.UnlockExclusive(); });
    ExpectFree();
}

}  // namespace
}  // namespace qel::test
