#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "CopyPastCache.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"
#include "SysFactory.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;

std::vector<unsigned char> Bytes(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    for (std::size_t at = 0; at < count; ++at) {
        bytes[at] = static_cast<unsigned char>(at * 7 + at / 251);
    }
    return bytes;
}

TEST(CopyPastCache, CopiesEveryLengthFromAndToEveryPlaceAndNothingBeside) {
    const std::vector<unsigned char> source = Bytes(400);
    for (std::size_t from = 0; from < 3; ++from) {
        for (std::size_t to = 0; to < 66; ++to) {
            for (const std::size_t size : {0U, 1U, 26U, 63U, 64U, 65U, 127U, 128U, 200U, 333U}) {
                alignas(64) unsigned char target[512] = {};
                CopyPastCache(target + to, source.data() + from, size);
                for (std::size_t at = 0; at < sizeof target; ++at) {
                    const bool isInside = at >= to && at < to + size;
                    ASSERT_EQ(target[at], isInside ? source[from + at - to] : 0)
                        << size << " bytes from " << from << " to " << to << ", at " << at;
                }
            }
        }
    }
}

TEST(PastCacheFrom, IsFor64KiBAndMoreInRingsThatAreLargerThanTheCache) {
    constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(PastCacheFrom(64 * kMiB, 32 * kMiB), 65536U);
    EXPECT_EQ(PastCacheFrom(32 * kMiB + 1, 32 * kMiB), 65536U);
    EXPECT_EQ(PastCacheFrom(32 * kMiB, 32 * kMiB), kNever);
    EXPECT_EQ(PastCacheFrom(4 * kMiB, 32 * kMiB), kNever);
    EXPECT_EQ(PastCacheFrom(64 * kMiB, 0), kNever) << "nothing is known of the cache";
}

TEST(LargestCache, IsThatOfOneMachine) {
    EXPECT_LT(LargestCache(), 16384 * kMiB);
}

TEST(RingLargerThanTheCache, DeliversWhatWasWrittenPastTheCache) {
    const UniqueRingName name;
    const std::uint64_t size = LargestCache() + kMiB;
    const auto open = [&](std::uint8_t node, bool sink) {
        return SharedPacketBuffer(std::make_unique<SharedBuffer>(
            SysFactory::Create(""), SharedBufferIF::BufferInfo{name.Name(), size, node, sink, 0}));
    };
    SharedPacketBuffer writer = open(0, false);
    SharedPacketBuffer reader = open(1, true);
    for (const std::size_t length : {65535U, 65536U, 65537U, 65599U, 100001U}) {
        std::vector<unsigned char> bytes = Bytes(length);
        Packet packet;
        packet.data = bytes;
        ASSERT_EQ(writer.WritePacket(packet), SMStatusCode::SUCCESS);
        ASSERT_EQ(writer.WriteMultiDataPacket({}, {bytes, packet.data.first(5), bytes}),
                  SMStatusCode::SUCCESS);
        for (const std::size_t parts : {1U, 2U}) {
            const auto next = reader.ReadNextPacket();
            ASSERT_EQ(next.status, SMStatusCode::SUCCESS);
            const auto& data = next.packet.data;
            ASSERT_EQ(data.size(), parts == 1 ? length : 2 * length + 5);
            EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), data.begin()));
            EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(),
                                   data.end() - gsl::narrow_cast<std::ptrdiff_t>(length)));
            ASSERT_EQ(reader.ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
    }
}

}  // namespace
}  // namespace qel::test
