#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "MockPacketBuffer.h"
#include "PopulateRing.h"
#include "RingError.h"
#include "SharedMemLibFactory.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 1000000;
constexpr int kMadvPopulateWrite = 23;

/// A ring straight from the library: its object is all holes.
class PopulateRingTest : public testing::Test {
protected:
    [[nodiscard]] std::uint64_t AllocatedBytes() const {
        struct stat status {};
        EXPECT_EQ(stat(name_.Path().c_str(), &status), 0);
        return static_cast<std::uint64_t>(status.st_blocks) * 512;
    }

    UniqueRingName name_;
    std::unique_ptr<SharedPacketBufferIF> ring_ =
        SharedMemLibFactory::Create()
            ->GetSharedPacketBuffer({name_.Name(), kSize, 0, false, 0})
            .buffer;
};

int RefuseAsOldKernel(void*, std::size_t, int) {
    errno = EINVAL;
    return -1;
}

int RefuseForMemory(void*, std::size_t, int) {
    errno = ENOMEM;
    return -1;
}

TEST_F(PopulateRingTest, AllPagesAreThereAfterwards) {
    ASSERT_LT(AllocatedBytes(), kSize);
    PopulateRing(*ring_, kSize);
    EXPECT_GE(AllocatedBytes(), kSize);
}

TEST_F(PopulateRingTest, AllPagesAreThereOnAnOldKernelToo) {
    PopulateRing(*ring_, kSize, RefuseAsOldKernel);
    EXPECT_GE(AllocatedBytes(), kSize);
}

TEST_F(PopulateRingTest, WholePagesFromTheControlBlockToTheEndAreAskedFor) {
    void* start = nullptr;
    std::size_t length = 0;
    int advice = 0;
    PopulateRing(*ring_, kSize, [&](void* from, std::size_t size, int how) {
        start = from;
        length = size;
        advice = how;
        return 0;
    });
    auto* const data = ring_->ReadData(0, kSize).data.data();
    EXPECT_EQ(start, data - 152);
    EXPECT_EQ(length, kSize + 152);
    EXPECT_EQ(advice, kMadvPopulateWrite);
}

TEST_F(PopulateRingTest, ContentOfARingInUseStays) {
    const OwnedPacket packet(1000, 3, 'p');
    ASSERT_EQ(ring_->WritePacket(packet.Get()), SMStatusCode::SUCCESS);
    PopulateRing(*ring_, kSize);
    PopulateRing(*ring_, kSize, RefuseAsOldKernel);
    const auto stored = ring_->ReadData(26, 1000).data;
    EXPECT_EQ(std::memcmp(stored.data(), packet.Get().data.data(), 1000), 0);
}

TEST_F(PopulateRingTest, ShortMemoryIsAnErrorWithRingAndErrno) {
    try {
        PopulateRing(*ring_, kSize, RefuseForMemory);
        FAIL() << "no error";
    } catch (const RingError& failure) {
        EXPECT_EQ(failure.Errno(), ENOMEM);
        EXPECT_EQ(
            std::string(failure.what()),
            "ring " + name_.Name() + ": cannot populate 1000000 bytes: 12(Cannot allocate memory)");
    }
}

TEST_F(PopulateRingTest, MoreThanTheRingHasIsRefused) {
    EXPECT_THROW(PopulateRing(*ring_, kSize + 1), std::invalid_argument);
}

TEST_F(PopulateRingTest, NothingToPopulateIsDoneAtOnce) {
    PopulateRing(*ring_, 0, RefuseForMemory);
}

}  // namespace
}  // namespace qel::test
