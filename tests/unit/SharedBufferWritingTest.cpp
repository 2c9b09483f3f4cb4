// Writing records: placement, the reserve, the packet limit and the wrap.

#include <limits>

#include "RingHarness.h"

namespace qel::test {
namespace {

class SharedBufferWriting : public RingTest {};
QEV_ON_EVERY_KERNEL(SharedBufferWriting);

std::string WrapText(const std::string& name, std::uint64_t packetLength) {
    return "DoWriteHeaderMultiData " + name + " PacketSize: " + std::to_string(packetLength) +
           " exceeds size of physical shared memory, need to fill to start at beginning";
}

TEST_P(SharedBufferWriting, RecordIsHeaderThenPayloadAtTheWriteIndexAndIsHandedOn) {
    const auto ring = Open(0);
    Control().wIdx[0] = 100;
    Bytes payload = CountingBytes(20, 200);

    const WriteResult result = ring->WriteHeaderPayload(header_, payload, false);

    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(146U, result.index);
    EXPECT_EQ(header_, DataAt(100, kHeader));
    EXPECT_EQ(payload, DataAt(126, 20));
    EXPECT_EQ(Bytes(100, 0), DataAt(0, 100));
    EXPECT_EQ(Bytes(kSize - 146, 0), DataAt(146, kSize - 146));
    EXPECT_EQ(146U, Control().wIdx[0]);
    EXPECT_EQ(kSize - 46, Control().avail[0]);
    EXPECT_EQ(46U, Control().avail[1]);
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferWriting, RecordThatEndsExactlyAtTheEndIsWrittenAndTheNextStartsAtZero) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 46;

    const WriteResult last = Write(*ring, 20);
    EXPECT_EQ(SMStatusCode::SUCCESS, last.status);
    EXPECT_EQ(0U, last.index);
    EXPECT_EQ(0U, Control().wIdx[0]);
    EXPECT_EQ(header_, DataAt(kSize - 46, kHeader));

    EXPECT_EQ(46U, Write(*ring, 20).index);
    EXPECT_EQ(header_, DataAt(0, kHeader));
}

TEST_P(SharedBufferWriting, RecordThatLeavesLessThanAHeaderBeforeTheEndAsksForAFill) {
    const auto ring = Open(0);
    for (std::uint64_t left = 1; left < kHeader; ++left) {
        SCOPED_TRACE(left);
        Control().wIdx[0] = kSize - 46 - left;
        const Bytes before = Snapshot();

        const WriteResult result = Write(*ring, 20);

        EXPECT_EQ(SMStatusCode::WILL_WRAP, result.status);
        EXPECT_EQ(46 + left, result.index);
        EXPECT_EQ(before, Snapshot());
        EXPECT_EQ(WrapText(Name(), 46), TakeErrorText(*ring));
    }
}

TEST_P(SharedBufferWriting, RecordThatLeavesJustAHeaderBeforeTheEndIsWritten) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 46 - kHeader;
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20).status);
    EXPECT_EQ(kSize - kHeader, Control().wIdx[0]);
}

TEST_P(SharedBufferWriting, RecordThatRunsPastTheEndAsksForAFillEvenIfCritical) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 45;
    const Bytes before = Snapshot();
    for (const bool critical : {false, true}) {
        const WriteResult result = Write(*ring, 20, critical);
        EXPECT_EQ(SMStatusCode::WILL_WRAP, result.status);
        EXPECT_EQ(45U, result.index);
    }
    EXPECT_EQ(before, Snapshot());
}

TEST_P(SharedBufferWriting, OrdinaryRecordNeedsTheRoomOfFiveHeadersMore) {
    const auto ring = Open(0);
    Control().avail[0] = 46 + kReserve - 1;
    const Bytes before = Snapshot();
    const WriteResult refused = Write(*ring, 20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, refused.status);
    EXPECT_EQ(0U, refused.index);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() +
                  " Packet size: 46 Reserve: 130 Available: 175 Max packets: 0 Num packets: 0",
              TakeErrorText(*ring));

    Control().avail[0] = 46 + kReserve;
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20).status);
    EXPECT_EQ(kReserve, Control().avail[0]);
}

TEST_P(SharedBufferWriting, CriticalRecordNeedsJustItsOwnRoom) {
    const auto ring = Open(0);
    Control().avail[0] = 45;
    const WriteResult refused = Write(*ring, 20, true);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, refused.status);
    EXPECT_EQ(0U, refused.index);
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() +
                  " Packet size: 46 Reserve: 0 Available: 45 Max packets: 0 Num packets: 0",
              TakeErrorText(*ring));

    Control().avail[0] = 46;
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20, true).status);
    EXPECT_EQ(0U, Control().avail[0]);
}

TEST_P(SharedBufferWriting, ReserveFollowsTheLengthOfTheHeader) {
    const auto ring = Open(0);
    Bytes header(10);
    Bytes payload(4);
    Control().avail[0] = 63;
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE,
              ring->WriteHeaderPayload(header, payload, false).status);
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() +
                  " Packet size: 14 Reserve: 50 Available: 63 Max packets: 0 Num packets: 0",
              TakeErrorText(*ring));
    Control().avail[0] = 64;
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->WriteHeaderPayload(header, payload, false).status);
}

TEST_P(SharedBufferWriting, LimitOfTwoFramesHoldsThreePacketsAndRefusesTheFourth) {
    const auto ring = Open(0, false, 2);
    for (std::uint32_t packets = 1; packets <= 3; ++packets) {
        EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20).status);
        EXPECT_EQ(packets, Control().numPackets);
    }
    const Bytes before = Snapshot();
    const WriteResult refused = Write(*ring, 20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, refused.status);
    EXPECT_EQ(0U, refused.index);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() +
                  " Packet size: 46 Reserve: 130 Available: 886 Max packets: 3 Num packets: 3",
              TakeErrorText(*ring));
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, Write(*ring, 20, true).status);
}

TEST_P(SharedBufferWriting, WrapIsRefusedWhenTheLimitHasNoRoomForAFillRecordAndThePacket) {
    const auto ring = Open(0, false, 4);
    Control().wIdx[0] = kSize - 30;
    Control().numPackets = 4;
    const Bytes before = Snapshot();
    const WriteResult refused = Write(*ring, 20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, refused.status);
    EXPECT_EQ(0U, refused.index);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() + " Max packets: 5 Num packets: 4",
              TakeErrorText(*ring));

    Control().numPackets = 3;
    const WriteResult wraps = Write(*ring, 20);
    EXPECT_EQ(SMStatusCode::WILL_WRAP, wraps.status);
    EXPECT_EQ(30U, wraps.index);
}

TEST_P(SharedBufferWriting, PacketSumsAreFormedInThirtyTwoBits) {
    const auto ring = Open(0, false, 4);
    Control().numPackets = std::numeric_limits<std::uint32_t>::max();
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20).status);
    EXPECT_EQ(0U, Control().numPackets);

    Control().numPackets = std::numeric_limits<std::uint32_t>::max();
    Control().wIdx[0] = kSize - 30;
    EXPECT_EQ(SMStatusCode::WILL_WRAP, Write(*ring, 20).status);
}

TEST_P(SharedBufferWriting, OnlyNodeZeroCountsPacketsIn) {
    const auto ring = Open(1, false, 4);
    Control().avail[1] = 500;
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20).status);
    EXPECT_EQ(SMStatusCode::SUCCESS, Fill(*ring, 20).status);
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ(500U - 92, Control().avail[1]);
    EXPECT_EQ(92U, Control().avail[2]);
    EXPECT_EQ(92U, Control().wIdx[1]);
    EXPECT_EQ(0U, Control().wIdx[0]);
    EXPECT_EQ(kSize, Control().avail[0]);
}

TEST_P(SharedBufferWriting, WriterThatIsTheSinkGetsItsBytesBackAtOnce) {
    const auto ring = Open(0, true, 4);
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 20).status);
    EXPECT_EQ(kSize, Control().avail[0]);
    EXPECT_EQ(0U, Control().avail[1]);
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ(46U, Control().wIdx[0]);
    EXPECT_EQ(SMStatusCode::SUCCESS, Fill(*ring, 20).status);
    EXPECT_EQ(kSize, Control().avail[0]);
    EXPECT_EQ(0U, Control().numPackets);
}

TEST_P(SharedBufferWriting, GatheredSpansStandOneBehindTheOther) {
    const auto ring = Open(0);
    Bytes three = CountingBytes(3, 10);
    Bytes none;
    Bytes five = CountingBytes(5, 13);
    const WriteResult result = ring->WriteHeaderMultiData(header_, {three, none, five}, 8, false);
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(34U, result.index);
    EXPECT_EQ(header_, DataAt(0, kHeader));
    EXPECT_EQ(CountingBytes(8, 10), DataAt(kHeader, 8));
    EXPECT_EQ(34U, Control().avail[1]);
}

TEST_P(SharedBufferWriting, GatheredPayloadMayBeEmpty) {
    const auto ring = Open(0);
    const WriteResult result = ring->WriteHeaderMultiData(header_, {}, 0, false);
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(kHeader, result.index);
    EXPECT_EQ(kHeader, Control().avail[1]);
}

TEST_P(SharedBufferWriting, AccountingTrustsTheStatedSizeAndCopyingTheSpans) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 36;
    Bytes first = CountingBytes(4, 50);
    Bytes second = CountingBytes(12, 54);
    Bytes third = CountingBytes(3, 66);

    const WriteResult result =
        ring->WriteHeaderMultiData(header_, {first, second, third}, 10, false);

    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(9U, result.index);
    EXPECT_EQ(CountingBytes(10, 50), DataAt(kSize - 10, 10));
    EXPECT_EQ(CountingBytes(9, 60), DataAt(0, 9));
    EXPECT_EQ(0U, Control().wIdx[0]);
    EXPECT_EQ(kSize - 36, Control().avail[0]);
    EXPECT_EQ(36U, Control().avail[1]);
}

TEST_P(SharedBufferWriting, BytesThatTheNextNodeCannotTakeAreClampedAndReported) {
    const auto ring = Open(0);
    Control().avail[1] = kSize - 10;
    const WriteResult result = Write(*ring, 20);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    EXPECT_EQ(46U, result.index);
    EXPECT_EQ(kSize, Control().avail[1]);
    EXPECT_EQ(kSize - 46, Control().avail[0]);
    EXPECT_EQ(46U, Control().wIdx[0]);
    EXPECT_EQ("IncreaseAvailableSize " + Name() +
                  " Releasing too much [total=1024][current available=1014], releasing 46",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferWriting, RefusalReplacesAnEarlierText) {
    const auto ring = Open(0);
    ring->DecreaseAvailableSize(kSize + 1, 0);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, Write(*ring, 20, true).status);
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() +
                  " Packet size: 46 Reserve: 0 Available: 0 Max packets: 0 Num packets: 0",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferWriting, RefusalForTheCountTellsTheSameAsForTheBytes) {
    const auto ring = Open(0, false, 1);
    Control().numPackets = 2;
    Control().avail[0] = 3;
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, Write(*ring, 1, true).status);
    EXPECT_EQ("DoWriteHeaderMultiData " + Name() +
                  " Packet size: 27 Reserve: 0 Available: 3 Max packets: 2 Num packets: 2",
              TakeErrorText(*ring));
}

}  // namespace
}  // namespace qel::test
