#include <sys/file.h>

#include <cerrno>
#include <set>
#include <system_error>

#include "LockFileFixture.h"
#include "MutexFaults.h"
#include "Worker.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LockFileUnlocking : public LockFileTest {};
using LockFileUnlockingDeathTest = LockFileUnlocking;

TEST_F(LockFileUnlocking, OfAFileThatIsNotOpenIsRefusedWithoutAPath) {
    OpenLockFile& lock = Make();
    lock.CloseFile();
    for (const Operation& operation : UnlockOperations()) {
        SCOPED_TRACE(operation.name);
        ExpectFails([&] { operation.run(lock); }, operation.name,
                    "Attempted to unlock invalid LockFile ");
    }
    EXPECT_THAT(Flocks(), IsEmpty());

    OpenLockFile& unusable = MakeUnusable();
    for (const Operation& operation : UnlockOperations()) {
        SCOPED_TRACE(operation.name);
        ExpectFails([&] { operation.run(unusable); }, operation.name,
                    "Attempted to unlock invalid LockFile ");
    }
}

TEST_F(LockFileUnlocking, IsRefusedBeforeALockInMemoryIsTaken) {
    OpenLockFile& unusable = MakeUnusable();
    std::set<int> calls;  // those of the log are the same for all
    for (const Operation& operation : UnlockOperations()) {
        CountMutexCalls("pthread_mutex_lock");
        EXPECT_THROW(operation.run(unusable), std::runtime_error);
        calls.insert(MutexCalls("pthread_mutex_lock"));
    }
    EXPECT_EQ(calls.size(), 1U);
}

TEST_F(LockFileUnlocking, OfAProcessLeavesTheLocksInMemoryAlone) {
    OpenLockFile& lock = Make();
    lock.LockProcess();
    ASSERT_TRUE(lock.Process());
    EXPECT_EQ(LockOn(path_), Held::Exclusive);
    faults_.ForgetCalls();

    lock.UnlockProcess();

    EXPECT_FALSE(lock.Process());
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 8)"));
    ExpectFree();
}

TEST_F(LockFileUnlocking, OfAProcessKeepsItsMarkWhenFlockFails) {
    OpenLockFile& lock = Make();
    lock.LockProcess();
    faults_.FailNth("flock", 1, EIO);

    ExpectFailsUnlogged([&] { lock.UnlockProcess(); }, "failed to unlock:Input/output error");

    EXPECT_TRUE(lock.Process());
    lock.UnlockProcess();
    ExpectFree();
}

TEST_F(LockFileUnlocking, SharedLowersTheCountAndFreesTheMemoryEvenWhenFlockFails) {
    OpenLockFile& lock = Make();
    lock.LockShared();
    faults_.FailNth("flock", 1, EINTR);

    ExpectFailsUnlogged([&] { lock.UnlockShared(); }, "failed to unlock:Interrupted system call");

    EXPECT_EQ(lock.SharedHolders(), 0);
    EXPECT_EQ(LockOn(path_), Held::Shared) << "the file's lock is still there";
    ASSERT_TRUE(lock.TryLockExclusive());  // of the same file description: changes its kind
    lock.UnlockExclusive();
    ExpectFree();
}

TEST_F(LockFileUnlocking, ExclusiveKeepsEverythingWhenFlockFails) {
    OpenLockFile& lock = Make();
    lock.LockExclusive();
    faults_.FailNth("flock", 1, EINTR);

    ExpectFailsUnlogged([&] { lock.UnlockExclusive(); },
                        "failed to unlock:Interrupted system call");

    EXPECT_TRUE(lock.Exclusive());
    EXPECT_EQ(LockOn(path_), Held::Exclusive);
    EXPECT_FALSE(Worker().Do([&] { return lock.TryLockShared(); })) << "the memory is free";
    lock.UnlockExclusive();
    ExpectFree();
}

TEST_F(LockFileUnlocking, SharedOnceTooManyCallsFlockAndBothKindsOfLockWorkAfterwards) {
    OpenLockFile& lock = Make();

    lock.UnlockShared();
    lock.UnlockShared();
    EXPECT_EQ(lock.SharedHolders(), -2);
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 8)", "flock(FILE, 8)"));

    lock.LockExclusive();
    EXPECT_EQ(LockOn(path_), Held::Exclusive);
    lock.UnlockExclusive();
    faults_.ForgetCalls();

    lock.LockShared();
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)"));
    EXPECT_EQ(lock.SharedHolders(), 1);
    EXPECT_EQ(LockOn(path_), Held::Shared);
    EXPECT_FALSE(Worker().Do([&] { return lock.TryLockExclusive(); }));
    lock.UnlockShared();
    ExpectFree();
}

TEST_F(LockFileUnlocking, SharedOnceTooManyIsMadeGoodByATriedLockToo) {
    OpenLockFile& lock = Make();
    lock.UnlockShared();
    faults_.ForgetCalls();

    EXPECT_TRUE(lock.TryLockShared());

    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 5)"));
    EXPECT_EQ(lock.SharedHolders(), 1);
    EXPECT_EQ(LockOn(path_), Held::Shared);
    lock.UnlockShared();
    ExpectFree();
}

TEST_F(LockFileUnlocking, SharedTooManyThatFailsSaysSoAndLeavesTheLocksSound) {
    OpenLockFile& lock = Make();
    faults_.FailNth("flock", 1, EIO);

    ExpectFailsUnlogged([&] { lock.UnlockShared(); }, "failed to unlock:Input/output error");

    EXPECT_EQ(lock.SharedHolders(), -1);
    ExpectFree();
}

TEST_F(LockFileUnlocking, ExclusiveOnceTooManyCallsFlockAndBothKindsOfLockWorkAfterwards) {
    OpenLockFile& lock = Make();
    lock.LockExclusive();
    lock.UnlockExclusive();
    faults_.ForgetCalls();

    lock.UnlockExclusive();

    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 8)"));
    EXPECT_FALSE(lock.Exclusive());
    ExpectFree();
    lock.LockShared();
    EXPECT_FALSE(Worker().Do([&] { return lock.TryLockExclusive(); }));
    lock.UnlockShared();
    lock.LockExclusive();
    EXPECT_FALSE(Worker().Do([&] { return lock.TryLockShared(); }));
    lock.UnlockExclusive();
}

TEST_F(LockFileUnlocking, ExclusiveByAThreadThatDoesNotHoldItLeavesTheMemoryToTheHolder) {
    OpenLockFile& lock = Make();
    Worker holder;
    holder.Do([&] { lock.LockExclusive(); });

    lock.UnlockExclusive();

    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 2)", "flock(FILE, 8)"));
    EXPECT_FALSE(lock.Exclusive());
    EXPECT_FALSE(lock.TryLockShared());
    EXPECT_FALSE(lock.TryLockExclusive());
    EXPECT_EQ(Flocks().size(), 2U) << "the memory was free";

    holder.Do([&] { lock.UnlockExclusive(); });

    ASSERT_NO_FATAL_FAILURE(ExpectFree());
    for (const std::size_t kind : {0U, 1U}) {
        LockOperations()[kind].run(lock);
        EXPECT_FALSE(holder.Do([&] { return lock.TryLockExclusive(); }));
        UnlockOperations()[kind].run(lock);
        holder.Do([&] { LockOperations()[kind].run(lock); });
        EXPECT_FALSE(lock.TryLockExclusive());
        holder.Do([&] { UnlockOperations()[kind].run(lock); });
    }
    ExpectFree();
}

// Without recorded calls, which would take locks in memory of their own.
TEST(LockFileUnlockingUnrecorded, SharedKeepsCountAndFlockWhenTheCounterCannotBeLocked) {
    if (!MutexFaultsWork()) {
        GTEST_SKIP() << "locks in memory cannot be refused here";
    }
    const UniqueBlockName name;
    OpenLockFile lock(name.LockPath());
    lock.LockShared();
    std::error_code reported;

    RefuseMutexCall("pthread_mutex_lock", 1, EINVAL);
    try {
        lock.UnlockShared();
    } catch (const std::system_error& error) {
        reported = error.code();
    }
    RefuseMutexCall("pthread_mutex_lock", 0, 0);

    EXPECT_EQ(reported, std::errc::invalid_argument);
    EXPECT_EQ(lock.SharedHolders(), 1);
    EXPECT_EQ(LockOn(name.LockPath()), Held::Shared);
    lock.UnlockShared();
    EXPECT_EQ(LockOn(name.LockPath()), Held::No);
    EXPECT_TRUE(lock.TryLockExclusive());
}

TEST_F(LockFileUnlocking, HappensAtTheEndForAnExclusiveLock) {
    Make().LockExclusive();
    faults_.ForgetCalls();

    lock_.reset();

    EXPECT_THAT(faults_.Calls(), ElementsAre("flock(FILE, 8)", "munmap(40)", "close(FILE)"));
    EXPECT_EQ(LockOn(path_), Held::No);
}

TEST_F(LockFileUnlocking, HappensAtTheEndForASharedLock) {
    Make().LockShared();
    faults_.ForgetCalls();

    lock_.reset();

    EXPECT_THAT(faults_.Calls(), ElementsAre("flock(FILE, 8)", "munmap(40)", "close(FILE)"));
    EXPECT_EQ(LockOn(path_), Held::No);
}

TEST_F(LockFileUnlocking, HappensAtTheEndOnceHoweverManyHoldersThereAre) {
    Make();
    lock_->LockShared();
    lock_->LockShared();
    lock_->LockShared();
    faults_.ForgetCalls();

    lock_.reset();

    EXPECT_THAT(faults_.Calls(), ElementsAre("munmap(40)", "close(FILE)"));
    EXPECT_EQ(LockOn(path_), Held::No);
}

TEST_F(LockFileUnlocking, HappensAtTheEndForAProcessAndThenForWhatElseIsHeld) {
    Make().LockProcess();
    lock_->LockShared();
    faults_.ForgetCalls();

    lock_.reset();

    EXPECT_THAT(faults_.Calls(),
                ElementsAre("flock(FILE, 8)", "flock(FILE, 8)", "munmap(40)", "close(FILE)"));
}

TEST_F(LockFileUnlocking, IsNotTriedAtTheEndOnAClosedFile) {
    Make().LockShared();
    lock_->CloseFile();
    faults_.ForgetCalls();

    lock_.reset();

    EXPECT_THAT(faults_.Calls(), IsEmpty());
}

TEST_F(LockFileUnlockingDeathTest, ThatFailsAtTheEndEndsTheProcess) {
    struct Row {
        const char* what;
        void (*hold)(OpenLockFile&);
    };
    const Row rows[] = {
        {"process", [](OpenLockFile& lock) { lock.LockProcess(); }},
        {"exclusive", [](OpenLockFile& lock) { lock.LockExclusive(); }},
        {"shared", [](OpenLockFile& lock) { lock.LockShared(); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_DEATH(
            {
                Make();
                row.hold(*lock_);
                faults_.FailNth("flock", 1, EIO);
                lock_.reset();
            },
            "failed to unlock:Input/output error");
    }
}

}  // namespace
}  // namespace qel::test
