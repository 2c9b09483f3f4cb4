#include <sys/mman.h>

#include <type_traits>

#include "BlockFixture.h"
#include "CallFaults.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<SharedMemoryBlockReader>);
static_assert(!std::is_copy_assignable_v<SharedMemoryBlockReader>);
static_assert(!std::is_copy_constructible_v<SharedMemoryBlockWriter>);
static_assert(!std::is_copy_assignable_v<SharedMemoryBlockWriter>);
static_assert(std::is_base_of_v<SharedMemoryBlockReaderIF, SharedMemoryBlockReader>);
static_assert(std::is_base_of_v<SharedMemoryBlockWriterIF, SharedMemoryBlockWriter>);

constexpr const char* kNoReader = "Error: Accessed default constructed SharedMemoryBlockReader";
constexpr const char* kNoWriter = "Error: Accessed default constructed SharedMemoryBlockWriter";

/// The real system calls, counted.
class CountingSys : public Sys {
public:
    int truncated = 0;
    int mapped = 0;
    int unmapped = 0;

private:
    int DoFtruncate(int fd, long length) override {
        ++truncated;
        return ::ftruncate(fd, length);
    }
    void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                 long offset) override {
        ++mapped;
        return ::mmap(address, length, protection, flags, fd, offset);
    }
    int DoMunmap(void* address, unsigned long length) override {
        ++unmapped;
        return ::munmap(address, length);
    }
};

class BlockHandles : public BlockTest {};

TEST_F(BlockHandles, OfNoBlockRefuseEveryUseAsAReader) {
    SharedMemoryBlockReader handle;
    SharedMemoryBlockReaderIF& reader = handle;

    EXPECT_EQ(Thrown([&] { reader.Lock(); }), kNoReader);
    EXPECT_EQ(Thrown([&] { (void)reader.TryLock(); }), kNoReader);
    EXPECT_EQ(Thrown([&] { reader.Unlock(); }), kNoReader);
    EXPECT_EQ(Thrown([&] { (void)reader.GetData(); }), kNoReader);
    EXPECT_EQ(Thrown([&] { (void)reader.Size(); }), kNoReader);
}

TEST_F(BlockHandles, OfNoBlockRefuseEveryUseAsAWriter) {
    SharedMemoryBlockWriter handle;
    SharedMemoryBlockWriterIF& writer = handle;

    EXPECT_EQ(Thrown([&] { writer.LockForWrite(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { (void)writer.TryLockForWrite(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { writer.UnlockForWrite(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { writer.LockForRead(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { (void)writer.TryLockForRead(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { writer.UnlockForRead(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { (void)writer.GetDataForRead(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { (void)writer.GetDataForWrite(); }), kNoWriter);
    EXPECT_EQ(Thrown([&] { (void)writer.Size(); }), kNoWriter);
}

TEST_F(BlockHandles, WithoutANameAreRefused) {
    constexpr const char* kEmpty = "Exception: SharedMemoryBlock name empty";
    EXPECT_EQ(Thrown<std::invalid_argument>([] { const SharedMemoryBlockReader reader(""); }),
              kEmpty);
    EXPECT_EQ(Thrown<std::invalid_argument>([] { const SharedMemoryBlockWriter writer(""); }),
              kEmpty);
    EXPECT_EQ(Thrown<std::invalid_argument>([] { const SharedMemoryBlockWriter writer("", 10); }),
              kEmpty);
}

TEST_F(BlockHandles, OfABlockThatNobodyMadeAreRefused) {
    constexpr const char* kNone =
        "failed to open shared memory: failed to read lockFile to get metadata";
    const auto sys = std::make_shared<Sys>();
    const std::string& name = name_.Name();

    EXPECT_EQ(Thrown([&] { const SharedMemoryBlockReader reader(name); }), kNone);
    EXPECT_EQ(Thrown([&] { const SharedMemoryBlockReader reader(sys, name); }), kNone);
    EXPECT_EQ(Thrown([&] { const SharedMemoryBlockWriter writer(name); }), kNone);
    EXPECT_EQ(Thrown([&] { const SharedMemoryBlockWriter writer(name, 0); }), kNone);
    EXPECT_EQ(Thrown([&] { const SharedMemoryBlockWriter writer(sys, name); }), kNone);
    EXPECT_EQ(Thrown([&] { const SharedMemoryBlockWriter writer(sys, name, 0); }), kNone);
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(BlockHandles, WithASizeCreateAndWithoutOneAttach) {
    SharedMemoryBlockWriter creator(name_.Name(), 100);
    SharedMemoryBlockWriter attached(name_.Name());
    SharedMemoryBlockReader reader(name_.Name());

    EXPECT_EQ(creator.Size(), 100U);
    EXPECT_EQ(attached.Size(), 100U);
    EXPECT_EQ(reader.Size(), 100U);
}

TEST_F(BlockHandles, ThatAttachCanWrite) {
    const auto sys = std::make_shared<Sys>();
    const SharedMemoryBlockWriter creator(name_.Name(), 100);
    SharedMemoryBlockWriter byName(name_.Name());
    SharedMemoryBlockWriter bySys(sys, name_.Name());
    SharedMemoryBlockWriter bySysAndSize(sys, name_.Name(), 7);
    unsigned char expected = 0;
    for (SharedMemoryBlockWriter* const writer : {&byName, &bySys, &bySysAndSize}) {
        writer->LockForWrite();
        EXPECT_EQ(*writer->GetDataForWrite(), expected);
        *writer->GetDataForWrite() = ++expected;
        writer->UnlockForWrite();
    }
}

TEST_F(BlockHandles, ShareTheData) {
    SharedMemoryBlockWriter writer(name_.Name(), 100);
    SharedMemoryBlockReader reader(name_.Name());

    writer.LockForWrite();
    std::memcpy(writer.GetDataForWrite(), "hello", 5);
    writer.UnlockForWrite();

    reader.Lock();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(reader.GetData()), 5), "hello");
    reader.Unlock();
    writer.LockForRead();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(writer.GetDataForRead()), 5), "hello");
    writer.UnlockForRead();
}

TEST_F(BlockHandles, MeetThroughTheLockFileInOneProcess) {
    SharedMemoryBlockWriter writer(name_.Name(), 100);
    SharedMemoryBlockReader reader(name_.Name());

    writer.LockForWrite();
    EXPECT_EQ(Lock(), Held::Exclusive);
    EXPECT_FALSE(reader.TryLock());
    writer.UnlockForWrite();

    EXPECT_TRUE(reader.TryLock());
    EXPECT_EQ(Lock(), Held::Shared);
    EXPECT_FALSE(writer.TryLockForWrite());
    EXPECT_TRUE(writer.TryLockForRead());
    writer.UnlockForRead();
    reader.Unlock();

    EXPECT_TRUE(writer.TryLockForWrite());
    EXPECT_EQ(Lock(), Held::Exclusive);
    writer.UnlockForWrite();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockHandles, WaitForALockUnlessTheyOnlyTry) {
    SharedMemoryBlockWriter writer(name_.Name(), 100);
    SharedMemoryBlockReader reader(name_.Name());
    CallFaults faults;
    const auto flocksOf = [&](const auto& lock, const auto& unlock) {
        faults.ForgetCalls();
        lock();
        unlock();
        return faults.Calls("flock");
    };
    faults.Alias(lockPath_, "LOCK");
    const auto unlock = [&] { reader.Unlock(); };
    const auto unlockForRead = [&] { writer.UnlockForRead(); };
    const auto unlockForWrite = [&] { writer.UnlockForWrite(); };

    // With LOCK_NB, which is 4, a call does not wait.
    EXPECT_THAT(flocksOf([&] { reader.Lock(); }, unlock),
                ElementsAre("flock(LOCK, 1)", "flock(LOCK, 8)"));
    EXPECT_THAT(flocksOf([&] { EXPECT_TRUE(reader.TryLock()); }, unlock),
                ElementsAre("flock(LOCK, 5)", "flock(LOCK, 8)"));
    EXPECT_THAT(flocksOf([&] { writer.LockForRead(); }, unlockForRead),
                ElementsAre("flock(LOCK, 1)", "flock(LOCK, 8)"));
    EXPECT_THAT(flocksOf([&] { EXPECT_TRUE(writer.TryLockForRead()); }, unlockForRead),
                ElementsAre("flock(LOCK, 5)", "flock(LOCK, 8)"));
    EXPECT_THAT(flocksOf([&] { writer.LockForWrite(); }, unlockForWrite),
                ElementsAre("flock(LOCK, 2)", "flock(LOCK, 8)"));
    EXPECT_THAT(flocksOf([&] { EXPECT_TRUE(writer.TryLockForWrite()); }, unlockForWrite),
                ElementsAre("flock(LOCK, 6)", "flock(LOCK, 8)"));
}

TEST_F(BlockHandles, PassTheErrorsOfTheBlockOn) {
    SharedMemoryBlockWriter writer(name_.Name(), 100);
    SharedMemoryBlockReader reader(name_.Name());

    EXPECT_EQ(Thrown([&] { (void)reader.GetData(); }),
              "GetDataForRead called without proper locking");
    EXPECT_EQ(Thrown([&] { reader.Unlock(); }),
              "Exception: UnlockForRead called from a different thread than the thread that locked "
              "it");
    EXPECT_EQ(Thrown([&] { (void)writer.GetDataForRead(); }),
              "GetDataForRead called without proper locking");
    EXPECT_EQ(Thrown([&] { (void)writer.GetDataForWrite(); }),
              "GetDataForWrite called without proper locking");
    EXPECT_EQ(Thrown([&] { writer.UnlockForRead(); }),
              "Exception: UnlockForRead called from a different thread than the thread that locked "
              "it");
    EXPECT_EQ(Thrown([&] { writer.UnlockForWrite(); }),
              "Exception: UnlockForWrite called from a different thread than the thread that "
              "locked it");
}

TEST_F(BlockHandles, UseTheSystemCallsTheyAreGivenAndKeepThemAlive) {
    const auto sys = std::make_shared<CountingSys>();
    {
        const SharedMemoryBlockWriter creator(sys, name_.Name(), 100);
        EXPECT_EQ(sys->truncated, 1);
        EXPECT_EQ(sys->mapped, 1);
        EXPECT_GT(sys.use_count(), 1);
        const SharedMemoryBlockWriter attached(sys, name_.Name());
        EXPECT_EQ(sys->mapped, 2);
        const SharedMemoryBlockReader reader(sys, name_.Name());
        EXPECT_EQ(sys->mapped, 3);
        EXPECT_EQ(sys->truncated, 1);
        EXPECT_EQ(sys->unmapped, 0);
    }
    EXPECT_EQ(sys->unmapped, 3);
    EXPECT_EQ(sys.use_count(), 1);
}

TEST_F(BlockHandles, WithoutSystemCallsAreRefused) {
    EXPECT_EQ(Thrown<std::invalid_argument>(
                  [this] { const SharedMemoryBlockReader reader(nullptr, name_.Name()); }),
              "Exception: SharedMemoryBlock without system calls");
    EXPECT_EQ(Thrown<std::invalid_argument>(
                  [this] { const SharedMemoryBlockWriter writer(nullptr, name_.Name(), 10); }),
              "Exception: SharedMemoryBlock without system calls");
    EXPECT_NE(::access(lockPath_.c_str(), F_OK), 0);
}

TEST_F(BlockHandles, ReleaseTheirBlockAtTheirEnd) {
    {
        SharedMemoryBlockWriter writer(name_.Name(), 100);
        writer.LockForWrite();
        EXPECT_EQ(Holding(), (Holdings{2, 2}));
    }
    EXPECT_EQ(Holding(), Holdings{});
    EXPECT_EQ(Lock(), Held::No);
}

}  // namespace
}  // namespace qel::test
