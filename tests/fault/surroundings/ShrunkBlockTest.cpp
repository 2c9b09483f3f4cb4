// A block's memory file and its lock file, cut by another process while they are in use.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "Attempts.h"
#include "Fate.h"
#include "Files.h"
#include "SharedMemoryMetadata.h"
#include "Thrown.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kLarge = 100000;

class AShrunkBlock : public testing::Test {
protected:
    /// A descriptor of the block's memory file, as any process of its user can get one.
    [[nodiscard]] int OpenMemory() const {
        SharedMemoryMetadata record;
        std::memcpy(&record, ReadFile(name_.LockPath()).data() + 8, sizeof(record));
        return ::open(BlockMemoryPath(record.pid, record.fd).c_str(), O_RDWR | O_CLOEXEC);
    }
    /// Cuts the memory file; 0 or an errno.
    [[nodiscard]] int Cut(off_t length) const {
        const int memory = OpenMemory();
        const int error = ::ftruncate(memory, length) == 0 ? 0 : errno;
        ::close(memory);
        return error;
    }
    const UniqueBlockName name_;
};

// A process of its own opens the block by itself: the lock of another's is refused to it.
std::string ReadAll(const std::string& name, const Conversation& parent) {
    SharedMemoryBlockReader reader(name);
    parent.Say("open");
    (void)parent.Hear();
    reader.Lock();
    unsigned sum = 0;
    for (std::uint64_t i = 0; i < reader.Size(); ++i) {
        sum += reader.GetData()[i];
    }
    reader.Unlock();
    return "read " + std::to_string(sum);
}

TEST_F(AShrunkBlock, KillsWhoeverTouchesItAndTheLockIsFreeAgain) {
    SharedMemoryBlockWriter writer(name_.Name(), kLarge);
    ChildProcess reader([&](const Conversation& parent) {
        DieAsAnyOther();
        parent.Say(ReadAll(name_.Name(), parent));
        return 0;
    });
    ASSERT_EQ(reader.Hear(), "open");
    ASSERT_EQ(Cut(8), 0);
    reader.Say("read");
    EXPECT_EQ(reader.Hear(), "");
    EXPECT_EQ(EndOf(reader.Wait()), "killed by Bus error");
    EXPECT_TRUE(writer.TryLockForWrite());
    writer.UnlockForWrite();
}

struct CutTo {
    const char* name;
    off_t length;
    off_t grownTo;  ///< again, by the same hand
    const char* reader;
};

class ACutBlock : public AShrunkBlock, public testing::WithParamInterface<CutTo> {};

TEST_P(ACutBlock, IsSeenByTheNextOpenerAndAWriterMakesAFreshOne) {
    SharedMemoryBlockWriter old(name_.Name(), kLarge);
    ASSERT_EQ(Cut(GetParam().length), 0);
    if (GetParam().grownTo != 0) {
        ASSERT_EQ(Cut(GetParam().grownTo), 0);
    }
    EXPECT_EQ(TryReader(name_.Name()),
              std::string("failed to open shared memory: ") + GetParam().reader);
    EXPECT_EQ(SharedMemoryBlockWriter(name_.Name(), 500).Size(), 500U);
}

INSTANTIATE_TEST_SUITE_P(
    To, ACutBlock,
    testing::Values(
        CutTo{"Nothing", 0, 0, "shared memory is too small"},
        CutTo{"LessThanItsHead", 7, 0, "shared memory is too small"},
        CutTo{"NothingAndGrownAgain", 0, kLarge + 8,
              "shared memory metadata uid does not match lock file metadata uid, assuming stale "
              "file descriptor"}),
    [](const auto& row) { return row.param.name; });

TEST_F(AShrunkBlock, ThatKeepsItsHeadIsOpenedWithTheSizeThatIsLeft) {
    SharedMemoryBlockWriter writer(name_.Name(), kLarge);
    ASSERT_EQ(Cut(8 + 100), 0);
    EXPECT_EQ(SharedMemoryBlockReader(name_.Name()).Size(), 100U);
    EXPECT_EQ(writer.Size(), kLarge);
}

// The memory file is made so that it can be sealed; whoever makes the block can do so.
TEST_F(AShrunkBlock, CannotBeOnceItIsSealedAgainstIt) {
    SharedMemoryBlockWriter writer(name_.Name(), kLarge);
    const int memory = OpenMemory();
    ASSERT_EQ(::fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    ::close(memory);

    EXPECT_EQ(Cut(8), EPERM);
    EXPECT_EQ(Cut(static_cast<off_t>(kLarge)), EPERM);
    SharedMemoryBlockReader reader(name_.Name());
    writer.LockForWrite();
    writer.GetDataForWrite()[kLarge - 1] = 7;
    writer.UnlockForWrite();
    reader.Lock();
    EXPECT_EQ(reader.GetData()[kLarge - 1], 7);
    reader.Unlock();
}

class ACutLockFile : public AShrunkBlock {
protected:
    void CutLockFile(off_t length) const {
        ASSERT_EQ(::truncate(name_.LockPath().c_str(), length), 0);
    }
};

// Locking does not look into the file, only opening does.
TEST_F(ACutLockFile, ChangesNothingForThoseWhoHaveTheBlock) {
    SharedMemoryBlockWriter writer(name_.Name(), kLarge);
    SharedMemoryBlockReader reader(name_.Name());
    CutLockFile(0);
    writer.LockForWrite();
    EXPECT_FALSE(reader.TryLock());
    writer.GetDataForWrite()[0] = 7;
    writer.UnlockForWrite();
    reader.Lock();
    EXPECT_EQ(reader.GetData()[0], 7);
    reader.Unlock();
}

TEST_F(ACutLockFile, HasLostItsRecordForTheNextOpenerWhichGivesItItsLength) {
    SharedMemoryBlockWriter writer(name_.Name(), kLarge);
    CutLockFile(0);
    EXPECT_EQ(TryReader(name_.Name()),
              "failed to open shared memory: failed to read lockFile to get metadata");
    EXPECT_EQ(ReadFile(name_.LockPath()), std::string(40, '\0'));
}

// From then on there are two blocks of one name.
TEST_F(ACutLockFile, HasTheNextWriterMakeASecondBlock) {
    SharedMemoryBlockWriter first(name_.Name(), kLarge);
    CutLockFile(0);
    SharedMemoryBlockWriter second(name_.Name(), 500);
    EXPECT_EQ(second.Size(), 500U);
    EXPECT_EQ(first.Size(), kLarge);
    EXPECT_EQ(SharedMemoryBlockReader(name_.Name()).Size(), 500U);
}

}  // namespace
}  // namespace qel::test
