#include <limits>

#include "FaultyBlockFixture.h"
#include "SharedMemoryBlock.h"
#include "Worker.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kUninitialized =
    "Exception: Access to uninitilized or default constructed SharedMemoryBlock";
constexpr const char* kNotTheReader =
    "Exception: UnlockForRead called from a different thread than the thread that locked it";
constexpr const char* kNotTheWriter =
    "Exception: UnlockForWrite called from a different thread than the thread that locked it";
constexpr const char* kNotForRead = "GetDataForRead called without proper locking";
constexpr const char* kNotForWrite = "GetDataForWrite called without proper locking";

class BlockLocking : public FaultyBlockTest {
protected:
    BlockLocking() { faults_.ForgetCalls(); }

    std::string ReadFailure() {
        return Thrown([this] { (void)block_->GetDataForRead(); });
    }
    std::string WriteFailure() {
        return Thrown([this] { (void)block_->GetDataForWrite(); });
    }

    std::unique_ptr<SharedMemoryBlock> block_ = Creator(1000);
    Worker other_;
};

TEST_F(BlockLocking, OfADefaultConstructedBlockIsRefused) {
    SharedMemoryBlock block;

    EXPECT_EQ(Thrown([&] { block.LockForRead(); }), kUninitialized);
    EXPECT_EQ(Thrown([&] { (void)block.TryLockForRead(); }), kUninitialized);
    EXPECT_EQ(Thrown([&] { block.UnlockForRead(); }), kUninitialized);
    EXPECT_EQ(Thrown([&] { block.LockForWrite(); }), kUninitialized);
    EXPECT_EQ(Thrown([&] { (void)block.TryLockForWrite(); }), kUninitialized);
    EXPECT_EQ(Thrown([&] { block.UnlockForWrite(); }), kUninitialized);
    EXPECT_EQ(Thrown([&] { (void)block.GetDataForRead(); }), kNotForRead);
    EXPECT_EQ(Thrown([&] { (void)block.GetDataForWrite(); }), kNotForWrite);
    EXPECT_EQ(block.Size(), std::numeric_limits<std::uint64_t>::max() - 7);
    for (const bool allowed : {false, true}) {
        EXPECT_EQ(Thrown([&] { block.SetReadAllowed(allowed); }),
                  "SetWriteAllowed called when data ptr is nullptr");
        EXPECT_EQ(Thrown([&] { block.SetWriteAllowed(allowed); }),
                  "SetWriteAllowed called when data ptr is nullptr");
    }
    EXPECT_THAT(faults_.Calls(), IsEmpty());
}

TEST_F(BlockLocking, IsNeededForTheData) {
    EXPECT_EQ(ReadFailure(), kNotForRead);
    EXPECT_EQ(WriteFailure(), kNotForWrite);
    EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }), kNotTheReader);
    EXPECT_EQ(Thrown([this] { block_->UnlockForWrite(); }), kNotTheWriter);
    EXPECT_THAT(faults_.Calls(), IsEmpty());
    EXPECT_EQ(block_->Size(), 1000U);
}

TEST_F(BlockLocking, ForReadOpensAccessUnderTheLockAndClosesItFirst) {
    block_->LockForRead();
    EXPECT_THAT(faults_.Calls(), ElementsAre("flock(LOCK, 1)", "mprotect(1008, 1)"));
    EXPECT_NE(block_->GetDataForRead(), nullptr);
    EXPECT_EQ(WriteFailure(), kNotForWrite);
    EXPECT_EQ(Lock(), Held::Shared);
    faults_.ForgetCalls();

    block_->UnlockForRead();
    EXPECT_THAT(faults_.Calls(), ElementsAre("mprotect(1008, 0)", "flock(LOCK, 8)"));
    EXPECT_EQ(ReadFailure(), kNotForRead);
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, ForReadByTryingDoesTheSame) {
    EXPECT_TRUE(block_->TryLockForRead());

    EXPECT_THAT(faults_.Calls(), ElementsAre("flock(LOCK, 5)", "mprotect(1008, 1)"));
    EXPECT_NE(block_->GetDataForRead(), nullptr);
    block_->UnlockForRead();
}

TEST_F(BlockLocking, ForWriteOpensAccessInTwoStepsAndClosesItInReverse) {
    block_->LockForWrite();
    EXPECT_THAT(faults_.Calls(),
                ElementsAre("flock(LOCK, 2)", "mprotect(1008, 2)", "mprotect(1008, 3)"));
    EXPECT_NE(block_->GetDataForWrite(), nullptr);
    EXPECT_EQ(ReadFailure(), kNotForRead) << "the write lock is no read lock";
    EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }), kNotTheReader);
    EXPECT_EQ(Lock(), Held::Exclusive);
    faults_.ForgetCalls();

    block_->UnlockForWrite();
    EXPECT_THAT(faults_.Calls(),
                ElementsAre("mprotect(1008, 1)", "mprotect(1008, 0)", "flock(LOCK, 8)"));
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, ForWriteByTryingDoesTheSame) {
    EXPECT_TRUE(block_->TryLockForWrite());

    EXPECT_THAT(faults_.Calls(),
                ElementsAre("flock(LOCK, 6)", "mprotect(1008, 2)", "mprotect(1008, 3)"));
    EXPECT_NE(block_->GetDataForWrite(), nullptr);
    block_->UnlockForWrite();
}

TEST_F(BlockLocking, ThatIsNotFreeChangesNothing) {
    {
        const ForeignLock foreign(lockPath_, LOCK_SH);
        faults_.ForgetCalls();
        EXPECT_FALSE(block_->TryLockForWrite());
        EXPECT_THAT(faults_.Calls(), ElementsAre("flock(LOCK, 6)"));
        EXPECT_EQ(WriteFailure(), kNotForWrite);
    }
    {
        const ForeignLock foreign(lockPath_, LOCK_EX);
        faults_.ForgetCalls();
        EXPECT_FALSE(block_->TryLockForRead());
        EXPECT_FALSE(block_->TryLockForWrite());
        EXPECT_THAT(faults_.Calls(), ElementsAre("flock(LOCK, 5)", "flock(LOCK, 6)"));
        EXPECT_EQ(ReadFailure(), kNotForRead);
        EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }), kNotTheReader);
    }
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, ThatFailsPassesUnchangedBeforeAnyBookkeeping) {
    const int descriptor = [this] {
        for (int number = 0;; ++number) {
            if (PathOfDescriptor(std::to_string(number)) == lockPath_) {
                return number;
            }
        }
    }();
    const std::string rest = " failed to lock " + lockPath_ + ", fd:" + std::to_string(descriptor) +
                             ": No locks available";
    const auto failure = [&](const auto& action) {
        faults_.ForgetCalls();
        faults_.FailNth("flock", 1, ENOLCK);
        return Thrown(action);
    };
    EXPECT_EQ(failure([this] { block_->LockForRead(); }), "LockShared" + rest);
    EXPECT_EQ(faults_.Calls().size(), 1U);
    EXPECT_EQ(failure([this] { (void)block_->TryLockForRead(); }), "TryLockShared" + rest);
    EXPECT_EQ(faults_.Calls().size(), 1U);
    EXPECT_EQ(failure([this] { block_->LockForWrite(); }), "LockExclusive" + rest);
    EXPECT_EQ(faults_.Calls().size(), 1U);
    EXPECT_EQ(failure([this] { (void)block_->TryLockForWrite(); }), "TryLockExclusive" + rest);
    EXPECT_EQ(faults_.Calls().size(), 1U);
    EXPECT_EQ(ReadFailure(), kNotForRead);
    EXPECT_EQ(WriteFailure(), kNotForWrite);
    EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }), kNotTheReader);
}

TEST_F(BlockLocking, ForReadBelongsToItsThread) {
    block_->LockForRead();

    EXPECT_EQ(other_.Do([this] { return ReadFailure(); }), kNotForRead);
    EXPECT_EQ(other_.Do([this] { return Thrown([this] { block_->UnlockForRead(); }); }),
              kNotTheReader);
    EXPECT_EQ(Lock(), Held::Shared);

    block_->UnlockForRead();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, ForWriteBelongsToItsThread) {
    block_->LockForWrite();
    faults_.ForgetCalls();

    EXPECT_EQ(other_.Do([this] { return WriteFailure(); }), kNotForWrite);
    EXPECT_EQ(other_.Do([this] { return Thrown([this] { block_->UnlockForWrite(); }); }),
              kNotTheWriter);
    EXPECT_THAT(faults_.Calls(), IsEmpty());
    EXPECT_EQ(Lock(), Held::Exclusive);

    block_->UnlockForWrite();
}

TEST_F(BlockLocking, ForReadClosesAccessWithTheLastReaderOnly) {
    block_->LockForRead();
    other_.Do([this] { block_->LockForRead(); });
    EXPECT_EQ(other_.Do([this] { return ReadFailure(); }), "nothing thrown");
    EXPECT_THAT(faults_.Calls(),
                ElementsAre("flock(LOCK, 1)", "mprotect(1008, 1)", "mprotect(1008, 1)"));
    faults_.ForgetCalls();

    block_->UnlockForRead();
    EXPECT_THAT(faults_.Calls(), IsEmpty());
    EXPECT_EQ(ReadFailure(), kNotForRead);
    EXPECT_EQ(Lock(), Held::Shared);
    faults_.ForgetCalls();

    other_.Do([this] { block_->UnlockForRead(); });
    EXPECT_THAT(faults_.Calls(), ElementsAre("mprotect(1008, 0)", "flock(LOCK, 8)"));
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, ForReadTwiceByOneThreadLeavesOneShareBehind) {
    block_->LockForRead();
    block_->LockForRead();
    faults_.ForgetCalls();

    block_->UnlockForRead();
    EXPECT_THAT(faults_.Calls(), ElementsAre("mprotect(1008, 0)"));
    EXPECT_EQ(Thrown([this] { block_->UnlockForRead(); }), kNotTheReader);
    EXPECT_EQ(Lock(), Held::Shared);

    block_.reset();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, ForWriteIsRememberedAfterItsRelease) {
    block_->LockForWrite();
    unsigned char* const data = block_->GetDataForWrite();
    block_->UnlockForWrite();

    EXPECT_EQ(block_->GetDataForWrite(), data);
    EXPECT_EQ(other_.Do([this] { return WriteFailure(); }), kNotForWrite);

    other_.Do([this] {
        block_->LockForWrite();
        block_->UnlockForWrite();
    });
    EXPECT_EQ(WriteFailure(), kNotForWrite);
    EXPECT_EQ(other_.Do([this] { return WriteFailure(); }), "nothing thrown");
}

TEST_F(BlockLocking, ForWriteCanBeReleasedTwiceAndWorksAfterwards) {
    block_->LockForWrite();
    block_->UnlockForWrite();
    faults_.ForgetCalls();

    block_->UnlockForWrite();

    EXPECT_THAT(faults_.Calls(),
                ElementsAre("mprotect(1008, 0)", "mprotect(1008, 0)", "flock(LOCK, 8)"));
    Put(*block_, "again");
    EXPECT_EQ(DataOf(*block_).substr(0, 5), "again");
    block_->LockForWrite();
    EXPECT_FALSE(other_.Do([this] { return block_->TryLockForRead(); }));
    block_->UnlockForWrite();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockLocking, HandsOutTheDataBehindTheHeader) {
    block_->LockForWrite();
    unsigned char* const forWrite = block_->GetDataForWrite();
    block_->UnlockForWrite();
    block_->LockForRead();
    const unsigned char* const forRead = block_->GetDataForRead();
    std::int64_t uid = 0;
    std::memcpy(&uid, forRead - 8, sizeof(uid));
    block_->UnlockForRead();

    EXPECT_EQ(forRead, forWrite);
    EXPECT_EQ(uid, Record().uid);
}

TEST_F(BlockLocking, IsNotNeededToChangeTheProtection) {
    block_->SetReadAllowed(true);
    block_->SetWriteAllowed(true);
    block_->SetWriteAllowed(true);
    block_->SetReadAllowed(false);
    block_->SetWriteAllowed(false);

    EXPECT_THAT(faults_.Calls(),
                ElementsAre("mprotect(1008, 1)", "mprotect(1008, 3)", "mprotect(1008, 3)",
                            "mprotect(1008, 2)", "mprotect(1008, 0)"));
}

TEST_F(BlockLocking, LeavesABitAloneThatWasSetWithoutIt) {
    block_->SetWriteAllowed(true);
    faults_.ForgetCalls();

    block_->LockForRead();
    block_->UnlockForRead();

    EXPECT_THAT(faults_.Calls("mprotect"), ElementsAre("mprotect(1008, 3)", "mprotect(1008, 2)"));
}

TEST_F(BlockLocking, CannotMakeAReadersMemoryWritable) {
    const auto reader = Opener();

    EXPECT_EQ(Thrown([&] { reader->SetWriteAllowed(true); }),
              "Unable to mprotect shared memory - 13(Permission denied)");
}

}  // namespace
}  // namespace qel::test
