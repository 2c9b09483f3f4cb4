// A lock file in a process that was forked from the one that made it.

#include <sys/file.h>

#include <csignal>
#include <initializer_list>
#include <string>

#include "ChildProcess.h"
#include "LockFileFixture.h"
#include "MutexFaults.h"

namespace qel::test {
namespace {

class LockFileInAForkedProcess : public LockFileTest {
protected:
    /// What `action` throws, and what it logs as "operation: text".
    template <typename Action>
    std::string Outcome(const Action& action) {
        log_.Forget();
        std::string outcome = Thrown(action);
        for (const LogRecord& record : log_.Records()) {
            outcome.append(" | ").append(record.operation).append(": ").append(record.text);
        }
        return outcome;
    }
    /// What Outcome says of an operation that throws and logs `text`.
    static std::string Failure(const Operation& operation, const std::string& text) {
        return std::string(text).append(" | ").append(operation.name).append(": ").append(text);
    }
    /// Its arguments in a row; a braced list is evaluated from the left to the right.
    static std::string InTurn(std::initializer_list<std::string> parts) {
        std::string all;
        for (const std::string& part : parts) {
            all.append(all.empty() ? "" : ", ").append(part);
        }
        return all;
    }
    [[nodiscard]] std::string FileState() const {
        return HoldingsOf(path_) == Holdings{} ? "closed" : "open";
    }
    [[nodiscard]] std::string FlockCount() const {
        return std::to_string(Flocks().size()) + " flocks";
    }
};

TEST_F(LockFileInAForkedProcess, RefusesEveryLock) {
    OpenLockFile& lock = Make();
    for (const Operation& operation : LockOperations()) {
        SCOPED_TRACE(operation.name);
        const std::string text = "Attempted to lock LockFile in child process";
        EXPECT_EQ(InChild([&] {
                      return InTurn({Outcome([&] { operation.run(lock); }), FlockCount()});
                  }),
                  Failure(operation, text) + ", 0 flocks");
    }
    ExpectFree();
}

TEST_F(LockFileInAForkedProcess, RefusesAFileThatIsNotOpenAsSuch) {
    OpenLockFile& lock = Make();
    lock.CloseFile();
    for (const Operation& operation : LockOperations()) {
        SCOPED_TRACE(operation.name);
        const std::string text = "Attempted to lock invalid LockFile " + path_;
        EXPECT_EQ(InChild([&] { return Outcome([&] { operation.run(lock); }); }),
                  Failure(operation, text));
    }
}

TEST_F(LockFileInAForkedProcess, UnlockingOnlyClosesItsCopy) {
    struct Row {
        Operation unlock;
        void (*lock)(OpenLockFile&);
        Held held;
    };
    const Row rows[] = {
        {UnlockOperations()[0], [](OpenLockFile& lock) { lock.LockShared(); }, Held::Shared},
        {UnlockOperations()[1], [](OpenLockFile& lock) { lock.LockExclusive(); }, Held::Exclusive},
        {UnlockOperations()[2], [](OpenLockFile& lock) { lock.LockProcess(); }, Held::Exclusive},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.unlock.name);
        OpenLockFile& lock = Make();
        row.lock(lock);
        faults_.ForgetCalls();

        EXPECT_EQ(
            InChild([&] {
                return InTurn({Outcome([&] { row.unlock.run(lock); }), FileState(), FlockCount()});
            }),
            "nothing thrown, closed, 0 flocks");
        EXPECT_EQ(LockOn(path_), row.held) << "the parent has lost its lock";

        row.unlock.run(lock);
        ExpectFree();
    }
}

TEST_F(LockFileInAForkedProcess, UnlockingLeavesTheMarksOfWhatTheParentHolds) {
    const auto marks = [this] {
        return std::string(lock_->Exclusive() ? "exclusive" : "-") +
               (lock_->Process() ? " process" : " -");
    };
    OpenLockFile& lock = Make();
    lock.LockExclusive();
    EXPECT_EQ(InChild([&] {
                  lock.UnlockExclusive();
                  return marks();
              }),
              "exclusive -");
    lock.UnlockExclusive();

    lock.LockProcess();
    EXPECT_EQ(InChild([&] {
                  lock.UnlockProcess();
                  return marks();
              }),
              "- process");
    lock.UnlockProcess();
    EXPECT_EQ(marks(), "- -");
}

TEST_F(LockFileInAForkedProcess, UnlockingGivesTheLockInMemoryBackOnce) {
    if (!MutexFaultsWork()) {
        GTEST_SKIP() << "locks in memory cannot be counted here";
    }
    const auto unlocks = [](const auto& action) {
        CountMutexCalls("pthread_rwlock_unlock");
        action();
        return std::to_string(MutexCalls("pthread_rwlock_unlock"));
    };
    OpenLockFile& lock = Make();
    lock.LockShared();
    EXPECT_EQ(InChild([&] {
                  return InTurn({unlocks([&] { lock.UnlockShared(); }),
                                 // has nothing left to give back
                                 unlocks([&] { lock.UnlockShared(); })});
              }),
              "1, 0");
    lock.UnlockShared();
    EXPECT_EQ(InChild([&] { return unlocks([&] { lock.UnlockShared(); }); }), "0");
    lock.LockExclusive();
    EXPECT_EQ(InChild([&] { return unlocks([&] { lock.UnlockExclusive(); }); }), "1");
    lock.UnlockExclusive();
    EXPECT_EQ(InChild([&] { return unlocks([&] { lock.UnlockExclusive(); }); }), "0");
}

TEST_F(LockFileInAForkedProcess, UnlockingAClosedFileIsRefusedButForSharedLocks) {
    OpenLockFile& lock = Make();
    lock.CloseFile();

    EXPECT_EQ(InChild([&] { return Outcome([&] { lock.UnlockShared(); }); }), "nothing thrown");
    const std::string text = "Attempted to unlock invalid LockFile ";
    EXPECT_EQ(InChild([&] { return Outcome([&] { lock.UnlockExclusive(); }); }),
              text + " | UnlockExclusive: " + text);
    EXPECT_EQ(InChild([&] { return Outcome([&] { lock.UnlockProcess(); }); }),
              text + " | UnlockProcess: " + text);
}

TEST_F(LockFileInAForkedProcess, KeepsTheParentsLockAtItsEnd) {
    struct Row {
        Operation lock;
        Operation unlock;
        Held held;
    };
    const Row rows[] = {
        {LockOperations()[0], UnlockOperations()[0], Held::Shared},
        {LockOperations()[1], UnlockOperations()[1], Held::Exclusive},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.lock.name);
        row.lock.run(Make());
        faults_.ForgetCalls();

        EXPECT_EQ(InChild([&] {
                      lock_.reset();
                      return InTurn({FileState(), FlockCount()});
                  }),
                  "closed, 0 flocks");
        EXPECT_EQ(LockOn(path_), row.held);
        row.unlock.run(*lock_);
    }
}

TEST_F(LockFileInAForkedProcess, ReadsUnderTheLockThatItsParentHolds) {
    Record record{7};
    Make().LockExclusive();
    ASSERT_TRUE(lock_->Write(record.data(), 32, 0));

    EXPECT_EQ(InChild([&] {
                  Record read{};
                  const bool done = lock_->Read(read.data(), 32, 0);
                  return InTurn({done ? "read" : "not read", std::to_string(read[0])});
              }),
              "read, 7");
}

TEST_F(LockFileInAForkedProcess, ReleasesForTheProcessBeforeAllElseAtItsEnd) {
    Make().LockProcess();
    lock_->LockExclusive();
    // The first release closes the copy, the second finds it closed, says so and ends the process.
    ChildProcess child([this](const Conversation& parent) {
        std::signal(SIGABRT, SIG_DFL);
        LogControl::SetSink([&parent](const LogRecord& record) { parent.Say(record.operation); });
        lock_.reset();
        return 0;
    });

    EXPECT_EQ(child.Hear(), "UnlockExclusive");
    const int status = child.Wait();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    EXPECT_EQ(LockOn(path_), Held::Exclusive);
}

}  // namespace
}  // namespace qel::test
