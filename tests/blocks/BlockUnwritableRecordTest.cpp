// A block whose lock file refuses to store the record. No state of a real lock file leads there, so
// the lock file's Write is replaced when this program is linked.

#include "BlockFixture.h"

namespace qel {

namespace {
int writes = 0;
}

template <>
bool LockFileIOBase<SharedMemoryMetadata>::Write(const void* /*source*/, std::uint64_t length,
                                                 std::uint64_t offset) {
    writes += length == 32 && offset == 0 ? 1 : 0;
    return false;
}

namespace test {
namespace {

using ABlockWhoseRecord = BlockTest;

TEST_F(ABlockWhoseRecord, CannotBeStoredIsNotMade) {
    const std::string failure = CreatorFailure();
    if (writes == 0) {
        GTEST_SKIP() << "the library was compiled with the real one inline";
    }
    EXPECT_EQ(failure, "failed to create shared memory: failed to write to lockfile");
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(Holding(), Holdings{});
    EXPECT_EQ(Lock(), Held::No);
    EXPECT_EQ(ReadFile(lockPath_), std::string(40, '\0'));
}

}  // namespace
}  // namespace test
}  // namespace qel
