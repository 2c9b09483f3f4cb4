// What a block's creator announces, as plain data.

#include <gmock/gmock.h>

#include "SharedMemoryMetadata.h"

namespace qel::test {
namespace {

TEST(BlockRecord, BelongsToNobodyAtFirst) {
    const SharedMemoryMetadata record;

    EXPECT_EQ(record.pid, 0);
    EXPECT_EQ(record.fd, -1);
    EXPECT_EQ(record.dev, 0U);
    EXPECT_EQ(record.ino, 0U);
    EXPECT_EQ(record.uid, 0);
}

TEST(BlockRecord, IsFoundByTheNameOfTheBlock) {
    EXPECT_EQ(BlockLockPath("camera"), "/tmp/camera_shm.lock");
    EXPECT_EQ(BlockMemoryPath(-7, 2147483647), "/proc/-7/fd/2147483647");
    EXPECT_EQ(kBlockHeaderSize, 8U);
}

}  // namespace
}  // namespace qel::test
