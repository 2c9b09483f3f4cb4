// Fill records: a header whose payload is skipped up to the end of the ring.

#include "RingHarness.h"

namespace qel::test {
namespace {

class SharedBufferFilling : public RingTest {};
QEV_ON_EVERY_KERNEL(SharedBufferFilling);

TEST_P(SharedBufferFilling, HeaderIsWrittenAndItsPayloadLeftAsItIs) {
    const auto ring = Open(0, false, 4);
    std::fill(Data(), Data() + kSize, static_cast<unsigned char>(0x5A));
    Control().wIdx[0] = 200;

    const WriteResult result = Fill(*ring, 30);

    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(256U, result.index);
    EXPECT_EQ(header_, DataAt(200, kHeader));
    EXPECT_EQ(Bytes(30, 0x5A), DataAt(226, 30));
    EXPECT_EQ(256U, Control().wIdx[0]);
    EXPECT_EQ(kSize - 56, Control().avail[0]);
    EXPECT_EQ(56U, Control().avail[1]);
    EXPECT_EQ(1U, Control().numPackets);
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferFilling, FillUpToTheEndMakesTheNextRecordStartAtZero) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 40;
    const WriteResult filled = Fill(*ring, 40 - kHeader);
    EXPECT_EQ(SMStatusCode::SUCCESS, filled.status);
    EXPECT_EQ(0U, filled.index);
    EXPECT_EQ(0U, Control().wIdx[0]);
    EXPECT_EQ(46U, Write(*ring, 20).index);
}

TEST_P(SharedBufferFilling, FillOfABareHeaderBeforeTheEndIsWritten) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - kHeader;
    const WriteResult filled = Fill(*ring, 0);
    EXPECT_EQ(SMStatusCode::SUCCESS, filled.status);
    EXPECT_EQ(0U, filled.index);
    EXPECT_EQ(header_, DataAt(kSize - kHeader, kHeader));
}

TEST_P(SharedBufferFilling, FillHasNoReserve) {
    const auto ring = Open(0);
    Control().avail[0] = 46;
    EXPECT_EQ(SMStatusCode::SUCCESS, Fill(*ring, 20).status);
    EXPECT_EQ(0U, Control().avail[0]);
    EXPECT_EQ(46U, Control().avail[1]);
}

TEST_P(SharedBufferFilling, ShortageOfBytesRefusesWhilePacketsAreAllowed) {
    const auto ring = Open(0, false, 4);
    Control().avail[0] = 45;
    Control().numPackets = 4;
    const Bytes before = Snapshot();
    const WriteResult refused = Fill(*ring, 20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, refused.status);
    EXPECT_EQ(0U, refused.index);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ("DoWriteHeaderSkipPayload " + Name() +
                  " Packet size: 46 Available: 45 Max packets: 5 Num packets: 4",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferFilling, ShortageOfBytesRefusesWithoutAPacketLimit) {
    const auto ring = Open(0);
    Control().avail[0] = 45;
    Control().numPackets = 7;
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, Fill(*ring, 20).status);
    EXPECT_EQ("DoWriteHeaderSkipPayload " + Name() +
                  " Packet size: 46 Available: 45 Max packets: 0 Num packets: 7",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferFilling, PacketLimitIsNotLookedAtWhileBytesSuffice) {
    const auto ring = Open(0, false, 4);
    Control().numPackets = 5;
    EXPECT_EQ(SMStatusCode::SUCCESS, Fill(*ring, 20).status);
    EXPECT_EQ(6U, Control().numPackets);
}

TEST_P(SharedBufferFilling, FillAtThePacketLimitWithTooFewBytesIsWrittenAndClamped) {
    const auto ring = Open(0, false, 4);
    Control().numPackets = 5;
    Control().avail[0] = 10;
    const WriteResult result = Fill(*ring, 20);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    EXPECT_EQ(46U, result.index);
    EXPECT_EQ(header_, DataAt(0, kHeader));
    EXPECT_EQ(0U, Control().avail[0]);
    EXPECT_EQ(46U, Control().avail[1]);
    EXPECT_EQ(46U, Control().wIdx[0]);
    EXPECT_EQ(6U, Control().numPackets);
    EXPECT_EQ("DecreaseAvailableSize " + Name() +
                  " Reserving too much [current available=10], reserving 46",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferFilling, BytesThatTheNextNodeCannotTakeAreClampedAndReported) {
    const auto ring = Open(0);
    Control().avail[1] = kSize;
    const WriteResult result = Fill(*ring, 20);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    EXPECT_EQ(46U, result.index);
    EXPECT_EQ(kSize, Control().avail[1]);
    EXPECT_EQ(46U, Control().wIdx[0]);
}

TEST_P(SharedBufferFilling, FillThatLeavesLessThanAHeaderBeforeTheEndChangesNothing) {
    const auto ring = Open(0, false, 4);
    for (std::uint64_t left = 1; left < kHeader; ++left) {
        SCOPED_TRACE(left);
        Control().wIdx[0] = kSize - 46 - left;
        Control().numPackets = 3;
        const Bytes before = Snapshot();
        const WriteResult result = Fill(*ring, 20);
        EXPECT_EQ(SMStatusCode::WILL_WRAP, result.status);
        EXPECT_EQ(46 + left, result.index);
        EXPECT_EQ(before, Snapshot());
        EXPECT_EQ("DoWriteHeaderSkipPayload " + Name() +
                      " PacketSize: 46 exceeds size of physical shared memory, need to fill to "
                      "start at beginning",
                  TakeErrorText(*ring));
    }
}

TEST_P(SharedBufferFilling, FillThatRunsPastTheEndIsRefusedWhenTheLimitHasNoRoomForTwo) {
    const auto ring = Open(0, false, 4);
    Control().wIdx[0] = kSize - 30;
    Control().numPackets = 4;
    const Bytes before = Snapshot();
    const WriteResult refused = Fill(*ring, 20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, refused.status);
    EXPECT_EQ(0U, refused.index);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ("DoWriteHeaderSkipPayload " + Name() + " Max packets: 5 Num packets: 4",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferFilling, ShortageAtTheLimitStillMeetsTheWrapCheck) {
    const auto ring = Open(0, false, 4);
    Control().wIdx[0] = kSize - 30;
    Control().numPackets = 5;
    Control().avail[0] = 10;
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, Fill(*ring, 20).status);
    EXPECT_EQ("DoWriteHeaderSkipPayload " + Name() + " Max packets: 5 Num packets: 5",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferFilling, RefusedWriteFilledAndRepeatedStartsAtZero) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 100;
    ASSERT_EQ(SMStatusCode::WILL_WRAP, Write(*ring, 600).status);
    EXPECT_EQ(100U, Write(*ring, 600).index);
    EXPECT_EQ(SMStatusCode::SUCCESS, Fill(*ring, 100 - kHeader).status);
    EXPECT_EQ(626U, Write(*ring, 600).index);
    EXPECT_EQ(726U, Control().avail[1]);
}

}  // namespace
}  // namespace qel::test
