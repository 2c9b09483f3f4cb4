// What deaths leave that the table's traffic does not come to: rings that critical packets have
// filled to the last byte, and states that no death leaves.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>

#include "InPlaceWriter.h"
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
    [[nodiscard]] bool PutRightNow() const { return PutRight(ring_); }
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

/// A packet that is written in place is announced by its header before its bytes are handed on. The
/// header, and as many of the steps behind it as are asked for.
void DieInPlace(ControlBlock& control, SharedPacketBufferIF& writer, std::uint64_t length,
                int steps) {
    const std::uint64_t start = control.wIdx[0].load();
    PacketHeader header;
    header.length = length;
    header.pts = 3;
    header.timestampSec = static_cast<std::uint32_t>(length);
    std::memcpy(writer.ReadData(start, kPacketHeaderSize).data.data(), &header, sizeof header);
    const std::uint64_t record = kPacketHeaderSize + length;
    const std::function<void()> all[] = {
        [&] { control.wIdx[0].fetch_add(kPacketHeaderSize); },
        [&] { control.numPackets.fetch_add(control.maxPackets == 0 ? 0 : 1); },
        [&] { control.avail[0].fetch_sub(record); },
        [&] { control.avail[1].fetch_add(record); },
        [&] { control.wIdx[0].fetch_add(length); },
    };
    std::for_each(all, all + steps, [](const auto& step) { step(); });
}

TEST_P(RepairOfARing, IsDoneWhereverAWriterInPlaceDied) {
    constexpr int kSteps = 5;
    for (const std::size_t length : {0U, 5U, 100U}) {
        for (int steps = 0; steps <= kSteps; ++steps) {
            ring_.Clear();
            const auto writer = ring_.Open(0);
            const auto reader = ring_.Open(1);
            ASSERT_EQ(WriteNumbered(*writer, 1, 40), SMStatusCode::SUCCESS);
            DieInPlace(Control(), *writer, length, steps);
            ASSERT_TRUE(PutRightNow()) << length << " bytes, died after step " << steps;
            ASSERT_EQ(WriteNumbered(*writer, 4, 30), SMStatusCode::SUCCESS);
            const bool isThere = steps >= 4;
            for (const std::int64_t number : {1, 3, 4}) {
                if (number == 3 && !isThere) {
                    continue;
                }
                const auto next = reader->ReadNextPacket();
                ASSERT_EQ(next.status, SMStatusCode::SUCCESS) << length << ", step " << steps;
                const std::int64_t pts = next.packet.header.pts;
                EXPECT_EQ(pts, number) << length << " bytes, died after step " << steps;
                ASSERT_EQ(reader->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
            }
            EXPECT_EQ(reader->ReadNextPacket().status, SMStatusCode::DATA_NOT_AVAILABLE);
        }
    }
}

/// The steps above are those of the writer.
TEST_P(RepairOfARing, KnowsTheStepsOfAWriterInPlace) {
    ring_.Clear();
    const auto writer = ring_.Open(0);
    const RingImage::Bytes before = ring_.Save();
    DieInPlace(Control(), *writer, 50, 5);
    const RingImage::Bytes forged = ring_.Save();
    ring_.Restore(before);
    InPlaceWriter inPlace(*writer);
    PacketHeader header;
    header.pts = 3;
    header.timestampSec = 50;
    ASSERT_EQ(inPlace.Reserve(60).status, SMStatusCode::SUCCESS);
    ASSERT_EQ(inPlace.Commit(header, 50), SMStatusCode::SUCCESS);
    EXPECT_TRUE(ring_.Save() == forged);
}

INSTANTIATE_TEST_SUITE_P(Limits, RepairOfARing, testing::Values(0U, 5U), [](const auto& limit) {
    return limit.param == 0 ? "WithoutLimit" : "WithLimit";
});

}  // namespace
}  // namespace qel::test
