// What deaths leave that the table's traffic does not come to: rings that critical packets have
// filled to the last byte, and states that no death leaves.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "RepairRule.h"
#include "Traffic.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 2000;
constexpr std::size_t kFirst = 774;
constexpr std::size_t kSecond = kSize - kFirst - 2 * kPacketHeaderSize;

/// A chain of four nodes, without and with a packet limit.
class RepairOfARing : public testing::TestWithParam<std::uint32_t> {
protected:
    void Write(std::int64_t number, std::size_t size) const {
        ASSERT_EQ(WriteNumbered(*writer_, number, size, WriteKind::Critical),
                  SMStatusCode::SUCCESS);
    }
    void Fill() const {
        Write(1, kFirst);
        Write(2, kSecond);
    }
    /// Node 1 hands on a packet to node 2.
    void PassOn() const {
        const auto next = middle_->ReadNextPacket();
        ASSERT_EQ(next.status, SMStatusCode::SUCCESS);
        ASSERT_EQ(middle_->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
    }
    [[nodiscard]] ControlBlock& Control() const { return ring_.View().control; }
    [[nodiscard]] bool PutRightNow() const { return PutRight(ring_.View(), GetParam()); }
    void ExpectRefusedAndAsBefore() const {
        const RingImage::Bytes before = ring_.Save();
        EXPECT_FALSE(PutRightNow());
        EXPECT_EQ(ring_.Save(), before);
    }

    const RingImage ring_{{kSize, 3, GetParam()}};
    const std::unique_ptr<SharedPacketBufferIF> writer_ = ring_.Open(0);
    const std::unique_ptr<SharedPacketBufferIF> middle_ = ring_.Open(1);
};

TEST_P(RepairOfARing, ThatWaitsFullChangesNothing) {
    Fill();
    const RingImage::Bytes before = ring_.Save();
    EXPECT_TRUE(PutRightNow());
    EXPECT_EQ(ring_.Save(), before);
}

TEST_P(RepairOfARing, ThatTheDeadWriterHasJustFilledMovesItsIndexOn) {
    Fill();
    const RingImage::Bytes whole = ring_.Save();
    Control().wIdx[0].store(kFirst + kPacketHeaderSize);
    EXPECT_TRUE(PutRightNow());
    EXPECT_EQ(ring_.Save(), whole);
}

TEST_P(RepairOfARing, OfWhichADeadNodeHeldAllIsRefused) {
    Write(1, kSize - kPacketHeaderSize);
    ASSERT_EQ(middle_->ReadNextPacket().status, SMStatusCode::SUCCESS);
    ExpectRefusedAndAsBefore();
}

TEST_P(RepairOfARing, ThatIsFullAndOfWhichADeadNodeWasTakingIsRefused) {
    Fill();
    PassOn();
    PassOn();
    Control().avail[2].fetch_sub(kFirst + kPacketHeaderSize);
    ExpectRefusedAndAsBefore();
}

TEST_P(RepairOfARing, WhoseIndicesDoNotLieBetweenRecordsIsRefused) {
    Write(1, 100);
    PassOn();
    const RingImage::Bytes sound = ring_.Save();
    for (std::atomic<std::uint64_t>* const field :
         {&Control().avail[1], &Control().wIdx[0], &Control().rIdx[1], &Control().rIdx[2],
          &Control().rIdx[3]}) {
        for (const std::uint64_t wrong :
             {std::uint64_t{77}, kSize - 1, kSize + 1, ~std::uint64_t{0}}) {
            ring_.Restore(sound);
            field->store(wrong);
            ExpectRefusedAndAsBefore();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Limits, RepairOfARing, testing::Values(0U, 5U), [](const auto& limit) {
    return limit.param == 0 ? "WithoutLimit" : "WithLimit";
});

}  // namespace
}  // namespace qel::test
