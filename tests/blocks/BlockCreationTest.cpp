#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <limits>
#include <set>

#include "FaultyBlockFixture.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kSmallestUid = 2305843009213693952;
constexpr std::int64_t kGreatestUid = 4611686018427387904;

class BlockCreation : public FaultyBlockTest {};

TEST_F(BlockCreation, TakesTheLockMakesTheMemoryAndClosesAccessInThatOrder) {
    const auto block = Creator(1000);

    EXPECT_THAT(
        CallsFromLocking(),
        ElementsAre("flock(LOCK, 2)", "memfd_create(" + name_.MemoryName() + ", 2)",
                    "fstat(MEMORY)", "ftruncate(MEMORY, 1008)", "mmap(1008, 3, 1, MEMORY, 0)",
                    "flock(LOCK, 8)", "mprotect(1008, 0)", "mprotect(1008, 0)"));
    static_assert(PROT_READ == 1 && PROT_WRITE == 2);
    static_assert(MAP_SHARED == 1);
    EXPECT_EQ(Lock(), Held::No);
    EXPECT_EQ(Holding(), (Holdings{2, 2}));
    EXPECT_EQ(block->Size(), 1000U);
}

TEST_F(BlockCreation, AnnouncesTheMemoryFile) {
    const auto block = Creator();

    const std::string content = ReadFile(lockPath_);
    ASSERT_EQ(content.size(), 40U);
    EXPECT_EQ(content.substr(0, 8), std::string("\1\0\0\0\0\0\0\0", 8));
    const auto number = [&content](std::size_t offset, std::size_t width) {
        std::uint64_t value = 0;
        std::memcpy(&value, content.data() + offset, width);
        return value;
    };
    const std::string descriptor = std::to_string(number(12, 4));
    struct stat status {};
    ASSERT_EQ(::stat(("/proc/self/fd/" + descriptor).c_str(), &status), 0);
    EXPECT_EQ(PathOfDescriptor(descriptor), "/memfd:" + name_.MemoryName() + " (deleted)");
    EXPECT_EQ(number(8, 4), static_cast<std::uint64_t>(::getpid()));
    EXPECT_EQ(number(16, 8), status.st_dev);
    EXPECT_EQ(number(24, 8), status.st_ino);
    EXPECT_EQ(status.st_size, 1008);
    const auto uid = static_cast<std::int64_t>(number(32, 8));
    EXPECT_GE(uid, kSmallestUid);
    EXPECT_LE(uid, kGreatestUid);
}

TEST_F(BlockCreation, StampsTheMemoryAndLeavesTheDataZero) {
    const auto block = Creator(10000);

    block->LockForRead();
    const unsigned char* const data = block->GetDataForRead();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data), 10000), std::string(10000, '\0'));
    std::int64_t uid = 0;
    std::memcpy(&uid, data - 8, sizeof(uid));
    block->UnlockForRead();
    EXPECT_EQ(uid, Record().uid);
    EXPECT_NE(uid, 0);
}

/// The real system calls, whose memory comes full of ones.
class DirtySys : public Sys {
    void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                 long offset) override {
        void* const start = ::mmap(address, length, protection, flags, fd, offset);
        if (start != MAP_FAILED) {
            std::memset(start, 0xFF, length);
        }
        return start;
    }
};

TEST_F(BlockCreation, ZeroesTheMemoryWhateverStandsInIt) {
    SharedMemoryBlock block(std::make_shared<DirtySys>(), name_.Name(), true, 10000);

    EXPECT_EQ(DataOf(block), std::string(10000, '\0'));
    block.LockForRead();
    std::int64_t uid = 0;
    std::memcpy(&uid, block.GetDataForRead() - 8, sizeof(uid));
    block.UnlockForRead();
    EXPECT_EQ(uid, Record().uid);
    EXPECT_GE(uid, kSmallestUid);
    EXPECT_LE(uid, kGreatestUid);
}

TEST_F(BlockCreation, DrawsAnotherUidEachTimeFromTheWholeRange) {
    std::set<std::int64_t> uids;
    std::int64_t bits = 0;
    for (int i = 0; i < 64; ++i) {
        const auto block = Creator();
        const std::int64_t uid = Record().uid;
        EXPECT_GE(uid, kSmallestUid);
        EXPECT_LE(uid, kGreatestUid);
        uids.insert(uid);
        bits |= uid;
    }
    EXPECT_EQ(uids.size(), 64U);
    // Each of the 61 lower bits is set once in two draws, so 64 draws miss one with 2^-58.
    EXPECT_EQ(bits & (kSmallestUid - 1), kSmallestUid - 1);
}

TEST_F(BlockCreation, OfOneByteIsEnough) {
    const auto block = Creator(1);

    EXPECT_EQ(block->Size(), 1U);
    EXPECT_EQ(DataOf(*block), std::string(1, '\0'));
}

TEST_F(BlockCreation, OpensALiveBlockForReadingWithTheseCalls) {
    const auto creator = Creator(1000);
    AliasAnnounced();
    faults_.ForgetCalls();

    const auto block = Opener();

    const std::string flags = std::to_string(O_RDONLY | O_CLOEXEC);
    EXPECT_THAT(
        CallsFromLocking(),
        ElementsAre("flock(LOCK, 1)", "stat(ANNOUNCED)", "open(ANNOUNCED, " + flags + ", 0)",
                    "fstat(MEMORY)", "pread(MEMORY, 8, 0)",
                    "fcntl(MEMORY, " + std::to_string(F_SETFD) + ", " + flags + ")",
                    "mmap(1008, 1, 1, MEMORY, 0)", "flock(LOCK, 8)", "mprotect(1008, 0)",
                    "mprotect(1008, 0)"));
    EXPECT_EQ(Lock(), Held::No);
    EXPECT_EQ(block->Size(), 1000U);
}

TEST_F(BlockCreation, AttachesToALiveBlockForWritingWithTheseCalls) {
    const auto creator = Creator(1000);
    AliasAnnounced();
    faults_.ForgetCalls();

    const auto block = Creator(5);

    const std::string flags = std::to_string(O_RDWR | O_CLOEXEC);
    EXPECT_THAT(
        CallsFromLocking(),
        ElementsAre("flock(LOCK, 2)", "stat(ANNOUNCED)", "open(ANNOUNCED, " + flags + ", 0)",
                    "fstat(MEMORY)", "pread(MEMORY, 8, 0)",
                    "fcntl(MEMORY, " + std::to_string(F_SETFD) + ", " + flags + ")",
                    "mmap(1008, 3, 1, MEMORY, 0)", "flock(LOCK, 8)", "mprotect(1008, 0)",
                    "mprotect(1008, 0)"));
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockCreation, AttachingKeepsSizeContentAndRecordWhateverSizeIsAskedFor) {
    const auto creator = Creator(1000);
    Put(*creator, "kept");
    const std::string before = ReadFile(lockPath_);

    for (const std::uint64_t size : {0U, 1U, 1000U, 5000U}) {
        SCOPED_TRACE(size);
        const auto block = Creator(size);
        EXPECT_EQ(block->Size(), 1000U);
        EXPECT_EQ(DataOf(*block).substr(0, 5), std::string("kept\0", 5));
        EXPECT_EQ(ReadFile(lockPath_), before);
    }
}

TEST_F(BlockCreation, LeavesTheMemoryFileOpenInAProgramThatThisOneBecomes) {
    const auto creator = Creator();
    const auto reader = Opener();
    const auto writer = Creator();

    int found = 0;
    for (int descriptor = 0; descriptor < 100; ++descriptor) {
        if (PathOfDescriptor(std::to_string(descriptor)).rfind("/memfd:" + name_.MemoryName(), 0) ==
            0) {
            ++found;
            EXPECT_EQ(::fcntl(descriptor, F_GETFD), 0);
        }
    }
    EXPECT_EQ(found, 3);
}

TEST_F(BlockCreation, IsRefusedWithoutANameBeforeAnyFileIsTouched) {
    for (const bool create : {false, true}) {
        EXPECT_EQ(Thrown<std::invalid_argument>([create] {
                      const SharedMemoryBlock block(std::make_shared<Sys>(), "", create, 10);
                  }),
                  "Exception: SharedMemoryBlock name empty");
    }
    EXPECT_EQ(
        Thrown<std::invalid_argument>([] { const SharedMemoryBlock block(nullptr, "", true, 10); }),
        "Exception: SharedMemoryBlock name empty");
    EXPECT_THAT(faults_.Calls(), IsEmpty());
}

TEST_F(BlockCreation, IsRefusedWithoutSystemCallsBeforeAnyFileIsTouched) {
    for (const bool create : {false, true}) {
        EXPECT_EQ(Thrown<std::invalid_argument>(
                      [&] { const SharedMemoryBlock block(nullptr, name_.Name(), create, 10); }),
                  "Exception: SharedMemoryBlock without system calls");
    }
    EXPECT_THAT(faults_.Calls(), IsEmpty());
    EXPECT_NE(::access(lockPath_.c_str(), F_OK), 0);
}

TEST_F(BlockCreation, OfAReaderFailsForANameThatNoWriterHasMade) {
    EXPECT_EQ(OpenerFailure(),
              "failed to open shared memory: failed to read lockFile to get metadata");

    EXPECT_EQ(ReadFile(lockPath_), std::string(40, '\0'));
    EXPECT_EQ(Holding(), Holdings{});
    ASSERT_EQ(log_.Records().size(), 1U);
    EXPECT_EQ(log_.Records()[0].text,
              "tried to read lock file " + lockPath_ + " value but no value has been set");
}

TEST_F(BlockCreation, OfAWriterWithoutASizeMakesNothing) {
    EXPECT_EQ(CreatorFailure(0),
              "failed to open shared memory: failed to read lockFile to get metadata");

    EXPECT_THAT(faults_.Calls("memfd_create"), IsEmpty());
    EXPECT_EQ(ReadFile(lockPath_), std::string(40, '\0'));
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(BlockCreation, IsRefusedASizeThatNoMemoryCanHave) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t size : {kMost, kMost - 7}) {
        SCOPED_TRACE(size);
        faults_.ForgetCalls();
        EXPECT_EQ(CreatorFailure(size),
                  "failed to create shared memory: failed to ftruncate shared memory");
        EXPECT_THAT(faults_.Calls("ftruncate"),
                    ::testing::Not(::testing::Contains(::testing::HasSubstr("MEMORY"))));
        EXPECT_EQ(Holding(), Holdings{});
    }
    for (const std::uint64_t size : {kMost - 8, kMost / 2}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(CreatorFailure(size),
                  "failed to create shared memory: failed to ftruncate shared memory");
        EXPECT_EQ(Holding(), Holdings{});
    }
}

TEST_F(BlockCreation, LeavesTheRecordBehindForAStaleOne) {
    Creator().reset();

    EXPECT_EQ(Record().pid, ::getpid());
    EXPECT_EQ(OpenerFailure(), "failed to open shared memory: file does not exist");
}

TEST_F(BlockCreation, AgainMakesAFreshBlockOverAStaleRecord) {
    auto first = Creator(1000);
    Put(*first, "old");
    const SharedMemoryMetadata before = Record();
    first.reset();

    const auto second = Creator(50);

    EXPECT_EQ(second->Size(), 50U);
    EXPECT_EQ(DataOf(*second), std::string(50, '\0'));
    EXPECT_NE(Record().uid, before.uid);
    EXPECT_EQ(Opener()->Size(), 50U);
}

TEST_F(BlockCreation, IsUndoneInReverse) {
    auto block = Creator(1000);
    block->LockForRead();
    faults_.ForgetCalls();

    block.reset();

    EXPECT_THAT(faults_.Calls(), ElementsAre("close(MEMORY)", "flock(LOCK, 8)", "munmap(40)",
                                             "close(LOCK)", "munmap(1008)"));
    EXPECT_EQ(Holding(), Holdings{});
}

}  // namespace
}  // namespace qel::test
