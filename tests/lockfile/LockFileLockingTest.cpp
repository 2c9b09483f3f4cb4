#include <sys/file.h>

#include <cerrno>
#include <system_error>

#include "LockFileFixture.h"
#include "MutexFaults.h"
#include "Worker.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LockFileLocking : public LockFileTest {};

TEST_F(LockFileLocking, OfAFileThatIsNotOpenIsRefused) {
    OpenLockFile& lock = MakeUnusable();

    for (const Operation& operation : LockOperations()) {
        SCOPED_TRACE(operation.name);
        ExpectFails([&] { operation.run(lock); }, operation.name,
                    "Attempted to lock invalid LockFile ");
    }
    EXPECT_THAT(Flocks(), IsEmpty());
}

TEST_F(LockFileLocking, OfAClosedFileIsRefusedWithItsPath) {
    OpenLockFile& lock = Make();
    lock.CloseFile();

    for (const Operation& operation : LockOperations()) {
        SCOPED_TRACE(operation.name);
        ExpectFails([&] { operation.run(lock); }, operation.name,
                    "Attempted to lock invalid LockFile " + path_);
    }
}

TEST_F(LockFileLocking, OfAnEmptyFileIsAllowed) {
    OpenLockFile& lock = Make();
    ASSERT_TRUE(lock.Resize(0));

    lock.LockShared();
    lock.UnlockShared();
    lock.LockExclusive();
    lock.UnlockExclusive();

    ExpectFree();
}

TEST_F(LockFileLocking, CallsFlockOnceForEachKindOfLock) {
    struct Row {
        Operation operation;
        const char* call;
        Held held;
        int holders;
        bool exclusive;
    };
    const Row rows[] = {
        {LockOperations()[0], "flock(FILE, 1)", Held::Shared, 1, false},
        {LockOperations()[1], "flock(FILE, 2)", Held::Exclusive, 0, true},
        {LockOperations()[2], "flock(FILE, 5)", Held::Shared, 1, false},
        {LockOperations()[3], "flock(FILE, 6)", Held::Exclusive, 0, true},
    };
    static_assert(LOCK_SH == 1 && LOCK_EX == 2 && LOCK_NB == 4 && LOCK_UN == 8);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.operation.name);
        OpenLockFile& lock = Make();

        row.operation.run(lock);

        EXPECT_THAT(Flocks(), ElementsAre(row.call));
        EXPECT_EQ(LockOn(path_), row.held);
        EXPECT_EQ(lock.SharedHolders(), row.holders);
        EXPECT_EQ(lock.Exclusive(), row.exclusive);
        EXPECT_THAT(log_.Records(), IsEmpty());
    }
}

TEST_F(LockFileLocking, GivesBackWhatItTookWhenFlockFails) {
    for (const int error : {EINTR, ENOLCK, EBADF}) {
        for (const Operation& operation : LockOperations()) {
            SCOPED_TRACE(std::string(operation.name) + " " + std::to_string(error));
            OpenLockFile& lock = Make();
            faults_.FailNth("flock", 1, error);

            ExpectFails([&] { operation.run(lock); }, operation.name,
                        LockFailure(operation.name, std::strerror(error)));

            EXPECT_EQ(Flocks().size(), 1U) << "it was tried again";
            EXPECT_EQ(lock.SharedHolders(), 0);
            ExpectFree();
        }
    }
}

TEST_F(LockFileLocking, ThatWouldWaitIsAFailureOfTheOperationsThatWait) {
    OpenLockFile& lock = Make();
    for (const int kind : {0, 1}) {
        const Operation operation = LockOperations()[static_cast<std::size_t>(kind)];
        faults_.FailNth("flock", 1, EWOULDBLOCK);

        ExpectFails([&] { operation.run(lock); }, operation.name,
                    LockFailure(operation.name, "Resource temporarily unavailable"));
    }
}

TEST_F(LockFileLocking, ReportsTheErrorOfFlockAndNotOneOfTheLog) {
    OpenLockFile& lock = Make();
    LogControl::SetSink([](const LogRecord& /*record*/) { errno = EBUSY; });
    faults_.FailNth("flock", 1, ENOLCK);

    EXPECT_EQ(Thrown([&] { lock.LockShared(); }), LockFailure("LockShared", "No locks available"));
}

TEST_F(LockFileLocking, ByTryingSaysNoWhenAnotherFileDescriptionHoldsIt) {
    OpenLockFile& lock = Make();
    {
        const ForeignLock foreign(path_, LOCK_EX);
        EXPECT_FALSE(lock.TryLockShared());
        EXPECT_FALSE(lock.TryLockExclusive());
        EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 5)", "flock(FILE, 6)"));
    }
    {
        const ForeignLock foreign(path_, LOCK_SH);
        EXPECT_TRUE(lock.TryLockShared());
        lock.UnlockShared();
        EXPECT_FALSE(lock.TryLockExclusive());
    }
    EXPECT_THAT(log_.Records(), IsEmpty());
    EXPECT_EQ(lock.SharedHolders(), 0);
    ExpectFree();
}

TEST_F(LockFileLocking, SharedTakesTheFlockForTheFirstHolderOnly) {
    OpenLockFile& lock = Make();

    lock.LockShared();
    EXPECT_TRUE(lock.TryLockShared());
    lock.LockShared();
    EXPECT_EQ(lock.SharedHolders(), 3);
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)"));

    lock.UnlockShared();
    lock.UnlockShared();
    EXPECT_EQ(LockOn(path_), Held::Shared);
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)"));

    lock.UnlockShared();
    EXPECT_THAT(Flocks(), ElementsAre("flock(FILE, 1)", "flock(FILE, 8)"));
    ExpectFree();
}

TEST_F(LockFileLocking, OfWhatTheThreadHoldsExclusivelyIsReportedAsADeadlock) {
    if (!MutexFaultsWork()) {
        GTEST_SKIP() << "a race detector reports it as well";
    }
    OpenLockFile& lock = Make();
    lock.LockExclusive();
    faults_.ForgetCalls();

    for (const int kind : {0, 1}) {
        SCOPED_TRACE(kind);
        try {
            LockOperations()[static_cast<std::size_t>(kind)].run(lock);
            FAIL() << "locked twice";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
        }
    }
    EXPECT_THAT(Flocks(), IsEmpty());
    EXPECT_TRUE(lock.Exclusive());
    lock.UnlockExclusive();
    ExpectFree();
}

TEST_F(LockFileLocking, SharedIsTriedAgainWhenTheLockInMemoryHasTooManyReaders) {
    if (!MutexFaultsWork()) {
        GTEST_SKIP() << "locks in memory cannot be refused here";
    }
    OpenLockFile& lock = Make();
    RefuseMutexCall("pthread_rwlock_rdlock", 1, EAGAIN);

    lock.LockShared();

    EXPECT_EQ(MutexCalls("pthread_rwlock_rdlock"), 2);
    lock.UnlockShared();
    ExpectFree();
}

TEST_F(LockFileLocking, SharedGivesTheLockInMemoryBackWhenTheCounterCannotBeLocked) {
    if (!MutexFaultsWork()) {
        GTEST_SKIP() << "locks in memory cannot be refused here";
    }
    OpenLockFile& lock = Make();
    RefuseMutexCall("pthread_mutex_lock", 1, EINVAL);

    try {
        lock.LockShared();
        FAIL() << "locked";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::invalid_argument);
    }

    EXPECT_THAT(Flocks(), IsEmpty());
    EXPECT_EQ(lock.SharedHolders(), 0);
    ExpectFree();
}

}  // namespace
}  // namespace qel::test
