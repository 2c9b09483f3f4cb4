// A block in a process that was forked from the one that made it.

#include <csignal>

#include "BlockFixture.h"
#include "CapturedLog.h"
#include "ChildProcess.h"

namespace qel::test {
namespace {

constexpr const char* kInChild = "Attempted to lock LockFile in child process";

class ABlockInAForkedProcess : public BlockTest {
protected:
    CapturedLog log_;  // keeps the refusals off standard error
    std::unique_ptr<SharedMemoryBlock> block_ = Creator();
};

TEST_F(ABlockInAForkedProcess, CannotBeLocked) {
    EXPECT_EQ(InChild([this] { return Thrown([this] { block_->LockForRead(); }); }), kInChild);
    EXPECT_EQ(InChild([this] { return Thrown([this] { (void)block_->TryLockForRead(); }); }),
              kInChild);
    EXPECT_EQ(InChild([this] { return Thrown([this] { block_->LockForWrite(); }); }), kInChild);
    EXPECT_EQ(InChild([this] { return Thrown([this] { (void)block_->TryLockForWrite(); }); }),
              kInChild);
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(ABlockInAForkedProcess, GivesBackItsCopyOfAReadLockAndNotTheParents) {
    block_->LockForRead();

    EXPECT_EQ(InChild([this] { return Thrown([this] { block_->UnlockForRead(); }); }),
              "nothing thrown");

    EXPECT_EQ(Lock(), Held::Shared);
    EXPECT_EQ(*block_->GetDataForRead(), 0) << "the parent can still read";
    block_->UnlockForRead();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(ABlockInAForkedProcess, GivesBackItsCopyOfAWriteLockAndNotTheParents) {
    block_->LockForWrite();

    EXPECT_EQ(InChild([this] { return Thrown([this] { block_->UnlockForWrite(); }); }),
              "nothing thrown");

    EXPECT_EQ(Lock(), Held::Exclusive);
    *block_->GetDataForWrite() = 1;
    block_->UnlockForWrite();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(ABlockInAForkedProcess, LeavesTheParentsLockAtItsEnd) {
    block_->LockForWrite();

    EXPECT_EQ(InChild([this] {
                  block_.reset();
                  return Holding() == Holdings{} ? std::string("nothing held") : "held";
              }),
              "nothing held");

    EXPECT_EQ(Lock(), Held::Exclusive);
    block_->UnlockForWrite();
}

TEST_F(ABlockInAForkedProcess, CanBeOpenedAnew) {
    Put(*block_, "hello");

    EXPECT_EQ(InChild([this] { return DataOf(*Opener()).substr(0, 5); }), "hello");
}

}  // namespace
}  // namespace qel::test
