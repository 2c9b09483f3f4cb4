// The counters of the control block and how they are clamped.

#include <limits>

#include "RingHarness.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();

class SharedBufferAccounting : public RingTest {};
QEV_ON_EVERY_KERNEL(SharedBufferAccounting);

TEST_P(SharedBufferAccounting, BytesAreTakenFromTheNamedNodeAlone) {
    const auto ring = Open(1);
    for (std::uint8_t node = 0; node < kMaxNodes; ++node) {
        Control().avail.at(node) = 100;
    }
    EXPECT_FALSE(ring->DecreaseAvailableSize(40, 3));
    EXPECT_EQ(60U, Control().avail[3]);
    EXPECT_EQ(100U, Control().avail[1]);
    EXPECT_FALSE(ring->DecreaseAvailableSize(60, 3));
    EXPECT_EQ(0U, Control().avail[3]);
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, TakingMoreThanThereIsStopsAtZeroAndIsReported) {
    const auto ring = Open(0);
    Control().avail[0] = 100;
    EXPECT_TRUE(ring->DecreaseAvailableSize(101, 0));
    EXPECT_EQ(0U, Control().avail[0]);
    EXPECT_EQ("DecreaseAvailableSize " + Name() +
                  " Reserving too much [current available=100], reserving 101",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, BytesAreGivenToTheNamedNodeAlone) {
    const auto ring = Open(1);
    Control().avail[4] = 1000;
    EXPECT_FALSE(ring->IncreaseAvailableSize(23, 4));
    EXPECT_EQ(1023U, Control().avail[4]);
    EXPECT_FALSE(ring->IncreaseAvailableSize(1, 4));
    EXPECT_EQ(kSize, Control().avail[4]);
    EXPECT_EQ(0U, Control().avail[1]);
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, GivingMoreThanFitsStopsAtTheSizeAndIsReported) {
    const auto ring = Open(1);
    Control().avail[2] = 1000;
    EXPECT_TRUE(ring->IncreaseAvailableSize(25, 2));
    EXPECT_EQ(kSize, Control().avail[2]);
    EXPECT_EQ("IncreaseAvailableSize " + Name() +
                  " Releasing too much [total=1024][current available=1000], releasing 25",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, CounterForgedAboveTheSizeHasNoRoom) {
    const auto ring = Open(1);
    Control().avail[2] = kSize + 5;
    EXPECT_TRUE(ring->IncreaseAvailableSize(1, 2));
    EXPECT_EQ(kSize + 5, Control().avail[2]);
    EXPECT_EQ("IncreaseAvailableSize " + Name() +
                  " Releasing too much [total=1024][current available=1029], releasing 1",
              TakeErrorText(*ring));
    EXPECT_FALSE(ring->IncreaseAvailableSize(0, 2));
}

TEST_P(SharedBufferAccounting, HugeAmountsAreClampedNotWrappedAround) {
    const auto ring = Open(0);
    EXPECT_TRUE(ring->DecreaseAvailableSize(kHuge, 0));
    EXPECT_EQ(0U, Control().avail[0]);
    EXPECT_TRUE(ring->IncreaseAvailableSize(kHuge, 0));
    EXPECT_EQ(kSize, Control().avail[0]);
}

TEST_P(SharedBufferAccounting, FirstFaultSinceTheLastPrintIsTheOneKept) {
    const auto ring = Open(0, true, 4);
    Control().avail[0] = 7;
    EXPECT_TRUE(ring->DecreaseAvailableSize(8, 0));
    EXPECT_TRUE(ring->IncreaseAvailableSize(kSize + 1, 0));
    EXPECT_TRUE(ring->DecrementPackets(1));
    EXPECT_TRUE(ring->DecreaseAvailableSize(9000, 0));
    EXPECT_EQ("DecreaseAvailableSize " + Name() +
                  " Reserving too much [current available=7], reserving 8",
              TakeErrorText(*ring));
    EXPECT_TRUE(ring->DecrementPackets(2));
    EXPECT_TRUE(ring->IncreaseAvailableSize(kSize + 1, 0));
    EXPECT_EQ("DecrementPackets " + Name() + " Releasing too many packets 2, numPackets 0",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, SinkCountsPacketsOut) {
    const auto ring = Open(2, true, 4);
    Control().numPackets = 3;
    EXPECT_FALSE(ring->DecrementPackets(2));
    EXPECT_EQ(1U, Control().numPackets);
    EXPECT_FALSE(ring->DecrementPackets(1));
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, CountingOutMoreThanThereAreStopsAtZeroAndIsReported) {
    const auto ring = Open(2, true, 4);
    Control().numPackets = 2;
    EXPECT_TRUE(ring->DecrementPackets(3));
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ("DecrementPackets " + Name() + " Releasing too many packets 3, numPackets 2",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, NodeThatIsNotTheSinkCountsNothingOut) {
    const auto ring = Open(2, false, 4);
    Control().numPackets = 2;
    EXPECT_FALSE(ring->DecrementPackets(3));
    EXPECT_EQ(2U, Control().numPackets);
}

TEST_P(SharedBufferAccounting, NothingIsCountedWithoutAPacketLimit) {
    const auto source = Open(0);
    const auto sink = Open(1, true);
    Control().numPackets = 2;
    source->IncrementPackets();
    EXPECT_FALSE(sink->DecrementPackets(3));
    EXPECT_EQ(2U, Control().numPackets);
}

TEST_P(SharedBufferAccounting, NodeZeroCountsPacketsIn) {
    const auto source = Open(0, false, 4);
    const auto other = Open(1);
    source->IncrementPackets();
    EXPECT_EQ(1U, Control().numPackets);
    other->IncrementPackets();
    EXPECT_EQ(1U, Control().numPackets);
}

TEST_P(SharedBufferAccounting, SpaceIsEnoughUpToTheReserve) {
    const auto ring = Open(1);
    Bytes header(26);
    Bytes payload(20);
    const struct {
        std::uint64_t available;
        bool critical;
        bool enough;
    } rows[] = {{176, false, true}, {175, false, false}, {46, true, true}, {45, true, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.available);
        Control().avail[1] = row.available;
        EXPECT_EQ(row.enough, ring->EnoughSpace(row.critical, header, payload));
    }
}

TEST_P(SharedBufferAccounting, PacketLimitAllowsUpToItselfInThirtyTwoBits) {
    const auto ring = Open(0, false, 4);
    const struct {
        std::uint32_t maxPackets;
        std::uint32_t numPackets;
        std::uint32_t count;
        bool allowed;
    } rows[] = {{5, 4, 1, true},  {5, 5, 1, false},         {5, 3, 2, true},
                {5, 4, 2, false}, {0, 1000, 1000, true},    {5, 0, 6, false},
                {5, 5, 0, true},  {5, 0xFFFFFFFF, 6, true}, {5, 0xFFFFFFFF, 7, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << row.maxPackets << " " << row.numPackets << " " << row.count);
        Control().maxPackets = row.maxPackets;
        Control().numPackets = row.numPackets;
        EXPECT_EQ(row.allowed, ring->MorePacketsAllowed(row.count));
    }
}

TEST_P(SharedBufferAccounting, ConsumeSkipsBytesRoundTheRing) {
    const auto ring = Open(1);
    Control().avail[1] = 100;
    Control().rIdx[1] = kSize - 30;
    EXPECT_FALSE(ring->Consume(30));
    EXPECT_EQ(0U, Control().rIdx[1]);
    EXPECT_FALSE(ring->Consume(60));
    EXPECT_EQ(60U, Control().rIdx[1]);
    EXPECT_EQ(10U, Control().avail[1]);
    EXPECT_TRUE(ring->Consume(11));
    EXPECT_EQ(71U, Control().rIdx[1]);
    EXPECT_EQ(0U, Control().avail[1]);
    EXPECT_EQ(0U, Control().rIdx[0]);
    EXPECT_EQ("DecreaseAvailableSize " + Name() +
                  " Reserving too much [current available=10], reserving 11",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferAccounting, CopiedDataIsSplitAtTheEnd) {
    const auto ring = Open(0);
    Bytes data = CountingBytes(20, 1);
    EXPECT_EQ(25U, ring->WriteData(5, data));
    EXPECT_EQ(data, DataAt(5, 20));
    EXPECT_EQ(0U, ring->WriteData(kSize - 20, data));
    EXPECT_EQ(data, DataAt(kSize - 20, 20));
    EXPECT_EQ(Bytes(5, 0), DataAt(0, 5));

    EXPECT_EQ(13U, ring->WriteData(kSize - 7, data));
    EXPECT_EQ(CountingBytes(7, 1), DataAt(kSize - 7, 7));
    EXPECT_EQ(CountingBytes(13, 8), DataAt(0, 13));

    EXPECT_EQ(20U, ring->WriteData(kSize, data));
    EXPECT_EQ(data, DataAt(0, 20));
    EXPECT_EQ(kSize - 1, ring->WriteData(kSize - 1, {}));
    EXPECT_EQ(0U, ring->WriteData(kSize, {}));
}

}  // namespace
}  // namespace qel::test
