// What a block leaves for other programs to find: a client of the shared library makes a block, and
// the bytes of the lock file and of the memory file are looked at by absolute offset, without the
// library. Then the other way round: both files are written by hand, and the library finds them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "UniqueBlockName.h"

namespace qel {
namespace {

// The lock file.
constexpr std::size_t kValueSet = 0;
constexpr std::size_t kPid = 8;
constexpr std::size_t kFd = 12;
constexpr std::size_t kDev = 16;
constexpr std::size_t kIno = 24;
constexpr std::size_t kUid = 32;
constexpr std::size_t kLockFileLength = 40;

// The memory file.
constexpr std::size_t kStamp = 0;
constexpr std::size_t kData = 8;

using Bytes = std::vector<unsigned char>;

Bytes ContentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

template <typename T>
T At(const Bytes& bytes, std::size_t offset) {
    T value{};
    EXPECT_GE(bytes.size(), offset + sizeof value);
    if (bytes.size() >= offset + sizeof value) {
        std::memcpy(&value, bytes.data() + offset, sizeof value);
    }
    return value;
}

template <typename T>
void Put(Bytes& bytes, std::size_t offset, T value) {
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

class BlockFiles : public ::testing::Test {
protected:
    [[nodiscard]] Bytes LockFile() const { return ContentsOf(name_.LockPath()); }

    /// Where the lock file says that the memory is.
    [[nodiscard]] std::string MemoryPath() const {
        const Bytes record = LockFile();
        return "/proc/" + std::to_string(At<std::int32_t>(record, kPid)) + "/fd/" +
               std::to_string(At<std::int32_t>(record, kFd));
    }

    test::UniqueBlockName name_;
};

TEST_F(BlockFiles, LockFileNamesCreatorAndMemoryFile) {
    const SharedMemoryBlockWriter writer(name_.Name(), 100);

    const Bytes contents = LockFile();
    ASSERT_EQ(contents.size(), kLockFileLength);
    EXPECT_EQ(Bytes(contents.begin(), contents.begin() + kPid), (Bytes{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(At<std::int32_t>(contents, kPid), ::getpid());
    struct stat memory {};
    ASSERT_EQ(::fstat(At<std::int32_t>(contents, kFd), &memory), 0);
    EXPECT_EQ(At<std::uint64_t>(contents, kDev), memory.st_dev);
    EXPECT_EQ(At<std::uint64_t>(contents, kIno), memory.st_ino);
    EXPECT_EQ(memory.st_size, 108);
}

TEST_F(BlockFiles, MemoryFileIsStampedWithTheRecordsUidAheadOfTheData) {
    SharedMemoryBlockWriter writer(name_.Name(), 5);
    writer.LockForWrite();
    std::copy_n("hello", 5, writer.GetDataForWrite());
    writer.UnlockForWrite();

    const Bytes memory = ContentsOf(MemoryPath());
    const auto uid = At<std::int64_t>(LockFile(), kUid);
    EXPECT_GE(uid, 2305843009213693952);
    EXPECT_LE(uid, 4611686018427387904);
    EXPECT_EQ(At<std::int64_t>(memory, kStamp), uid);
    EXPECT_EQ(Bytes(memory.begin() + kData, memory.end()), (Bytes{'h', 'e', 'l', 'l', 'o'}));
}

TEST_F(BlockFiles, LockFileWithoutABlockIsAllZeros) {
    EXPECT_THROW(SharedMemoryBlockReader reader(name_.Name()), std::runtime_error);
    EXPECT_EQ(LockFile(), Bytes(kLockFileLength));
}

/// A block that the library did not make.
class BlockMadeByHand : public BlockFiles {
protected:
    static constexpr std::int64_t kStampOfHand = 0x3122334455667788;

    void SetUp() override {
        memory_ = ::memfd_create("by hand", 0);
        Bytes contents{0, 0, 0, 0, 0, 0, 0, 0, 'h', 'a', 'n', 'd'};
        Put(contents, kStamp, kStampOfHand);
        EXPECT_EQ(::write(memory_, contents.data(), contents.size()), 12);
        struct stat memory {};
        EXPECT_EQ(::fstat(memory_, &memory), 0);

        Bytes record(kLockFileLength);
        Put(record, kValueSet, std::uint8_t{1});
        Put(record, kPid, std::int32_t{::getpid()});
        Put(record, kFd, std::int32_t{memory_});
        Put(record, kDev, std::uint64_t{memory.st_dev});
        Put(record, kIno, std::uint64_t{memory.st_ino});
        Put(record, kUid, kStampOfHand);
        std::ofstream(name_.LockPath(), std::ios::binary)
            .write(reinterpret_cast<const char*>(record.data()), kLockFileLength);
    }
    void TearDown() override { ::close(memory_); }

    int memory_ = -1;
};

TEST_F(BlockMadeByHand, IsRead) {
    SharedMemoryBlockReader reader(name_.Name());
    EXPECT_EQ(reader.Size(), 4U);
    reader.Lock();
    EXPECT_EQ(Bytes(reader.GetData(), reader.GetData() + 4), (Bytes{'h', 'a', 'n', 'd'}));
    reader.Unlock();
}

TEST_F(BlockMadeByHand, IsWrittenInPlace) {
    const Bytes record = LockFile();
    SharedMemoryBlockWriter writer(name_.Name());
    writer.LockForWrite();
    std::copy_n("foot", 4, writer.GetDataForWrite());
    writer.UnlockForWrite();

    const Bytes memory = ContentsOf(MemoryPath());
    EXPECT_EQ(At<std::int64_t>(memory, kStamp), kStampOfHand);
    EXPECT_EQ(Bytes(memory.begin() + kData, memory.end()), (Bytes{'f', 'o', 'o', 't'}));
    EXPECT_EQ(LockFile(), record);
}

}  // namespace
}  // namespace qel
