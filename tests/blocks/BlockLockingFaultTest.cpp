// Locks whose change of the protection, or whose own mutex, fails: nothing is rolled back.

#include <cerrno>
#include <system_error>

#include "FaultyBlockFixture.h"
#include "MutexFaults.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;

constexpr const char* kRefused = "Unable to mprotect shared memory - 12(Cannot allocate memory)";

class FailingProtection : public FaultyBlockTest {
protected:
    /// What `action` throws when its `nth` mprotect is refused.
    template <typename Action>
    std::string Failure(int nth, const Action& action) {
        faults_.FailNth("mprotect", nth, ENOMEM);
        return Thrown(action);
    }
    /// The protection that is wanted now, seen by asking for what is there anyway.
    std::string Wanted(bool read) {
        faults_.ForgetCalls();
        block_->SetReadAllowed(read);
        return faults_.Calls().at(0);
    }
    [[nodiscard]] bool HasReadLock() const {
        return Thrown([this] { (void)block_->GetDataForRead(); }) == "nothing thrown";
    }
    [[nodiscard]] bool HasWriteLock() const {
        return Thrown([this] { (void)block_->GetDataForWrite(); }) == "nothing thrown";
    }

    std::unique_ptr<SharedMemoryBlock> block_ = Creator(1000);
};

TEST_F(FailingProtection, LeavesAReadLockHeld) {
    EXPECT_EQ(Failure(1, [this] { block_->LockForRead(); }), kRefused);

    EXPECT_EQ(Lock(), Held::Shared);
    EXPECT_TRUE(HasReadLock());
    EXPECT_EQ(Wanted(true), "mprotect(1008, 1)");
    block_->UnlockForRead();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(FailingProtection, LeavesATriedReadLockHeld) {
    EXPECT_EQ(Failure(1, [this] { (void)block_->TryLockForRead(); }), kRefused);

    EXPECT_EQ(Lock(), Held::Shared);
    EXPECT_TRUE(HasReadLock());
}

TEST_F(FailingProtection, LeavesTheFileLockedWhenAReadLockIsGivenBack) {
    block_->LockForRead();

    EXPECT_EQ(Failure(1, [this] { block_->UnlockForRead(); }), kRefused);

    EXPECT_EQ(Lock(), Held::Shared);
    EXPECT_FALSE(HasReadLock());
    EXPECT_EQ(Wanted(false), "mprotect(1008, 0)");
    EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }),
              "Exception: UnlockForRead called from a different thread than the thread that locked "
              "it");
}

TEST_F(FailingProtection, LeavesTheFileLockedWithoutAWriterWhenAWriteLockIsTaken) {
    EXPECT_EQ(Failure(1, [this] { block_->LockForWrite(); }), kRefused);
    EXPECT_EQ(Lock(), Held::Exclusive);
    EXPECT_FALSE(HasWriteLock());
    EXPECT_EQ(Wanted(false), "mprotect(1008, 2)");

    block_.reset();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(FailingProtection, LeavesBothBitsSetWhenTheSecondStepOfAWriteLockFails) {
    EXPECT_EQ(Failure(2, [this] { (void)block_->TryLockForWrite(); }), kRefused);

    EXPECT_EQ(Lock(), Held::Exclusive);
    EXPECT_FALSE(HasWriteLock());
    EXPECT_EQ(Wanted(true), "mprotect(1008, 3)");
}

TEST_F(FailingProtection, LeavesAWriteLockHeldThatIsGivenBack) {
    block_->LockForWrite();

    EXPECT_EQ(Failure(1, [this] { block_->UnlockForWrite(); }), kRefused);
    EXPECT_EQ(Lock(), Held::Exclusive);
    EXPECT_EQ(Wanted(true), "mprotect(1008, 1)");

    EXPECT_EQ(Failure(2, [this] { block_->UnlockForWrite(); }), kRefused);
    EXPECT_EQ(Lock(), Held::Exclusive);
    EXPECT_EQ(Wanted(false), "mprotect(1008, 0)");

    block_->UnlockForWrite();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(FailingProtection, IsReportedWhenItIsChangedDirectly) {
    EXPECT_EQ(Failure(1, [this] { block_->SetReadAllowed(true); }), kRefused);
    EXPECT_EQ(Failure(1, [this] { block_->SetWriteAllowed(true); }), kRefused);
    EXPECT_EQ(Wanted(true), "mprotect(1008, 3)") << "the bits stay as they were asked for";
}

TEST_F(FailingProtection, IsNotTheOnlyThingThatCanFailWhenALockIsGivenBack) {
    block_->LockForRead();
    faults_.ForgetCalls();
    faults_.FailNth("flock", 1, EIO);
    EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }), "failed to unlock:Input/output error");
    EXPECT_THAT(faults_.Calls(), ElementsAre("mprotect(1008, 0)", "flock(LOCK, 8)"));

    block_->LockForWrite();
    faults_.ForgetCalls();
    faults_.FailNth("flock", 1, EIO);
    EXPECT_EQ(Thrown([this] { block_->UnlockForWrite(); }), "failed to unlock:Input/output error");
    EXPECT_THAT(faults_.Calls(),
                ElementsAre("mprotect(1008, 1)", "mprotect(1008, 0)", "flock(LOCK, 8)"));
    EXPECT_EQ(Lock(), Held::Exclusive);
    block_->UnlockForWrite();
    EXPECT_EQ(Lock(), Held::No);
}

/// Without recorded calls, which would take locks in memory of their own.
class FailingMutex : public BlockTest {
protected:
    void SetUp() override {
        if (!MutexFaultsWork()) {
            GTEST_SKIP() << "locks in memory cannot be refused here";
        }
    }
    /// `action` throws what its `nth` mutex reports.
    template <typename Action>
    static void ExpectFailure(int nth, const Action& action) {
        RefuseMutexCall("pthread_mutex_lock", nth, EINVAL);
        try {
            action();
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::invalid_argument);
        }
    }

    std::unique_ptr<SharedMemoryBlock> block_ = Creator(1000);
};

TEST_F(FailingMutex, LeavesTheFileLockedWhenAReadLockIsTaken) {
    ExpectFailure(2, [this] { block_->LockForRead(); });  // the first is the lock file's

    EXPECT_EQ(Lock(), Held::Shared);
    EXPECT_EQ(Thrown([this] { (void)block_->GetDataForRead(); }),
              "GetDataForRead called without proper locking");
}

TEST_F(FailingMutex, LeavesAReadLockHeldThatIsGivenBack) {
    block_->LockForRead();

    ExpectFailure(1, [this] { block_->UnlockForRead(); });

    EXPECT_EQ(Lock(), Held::Shared);
    block_->UnlockForRead();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(FailingMutex, IsReportedWhenTheDataIsAskedFor) {
    block_->LockForRead();

    ExpectFailure(1, [this] { (void)block_->GetDataForRead(); });

    EXPECT_NE(block_->GetDataForRead(), nullptr);
}

}  // namespace
}  // namespace qel::test
