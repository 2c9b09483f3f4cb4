// Looking at the data area and taking records out of the ring.

#include "RingHarness.h"

namespace qel::test {
namespace {

class SharedBufferReading : public RingTest {
protected:
    static void ExpectEmpty(const ByteSpan& view) {
        EXPECT_EQ(0U, view.size());
        EXPECT_EQ(nullptr, view.data());
    }
};
QEV_ON_EVERY_KERNEL(SharedBufferReading);

TEST_P(SharedBufferReading, ViewOfTheDataAreaLeavesTheControlBlockAlone) {
    const auto ring = Open(1);
    std::iota(Data(), Data() + 100, static_cast<unsigned char>(0));
    const Bytes before = Snapshot();
    const ReadResult result = ring->ReadData(10, 16);
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(CountingBytes(16, 10), BytesIn(result.data));
    EXPECT_EQ(before, Snapshot());
}

TEST_P(SharedBufferReading, ViewLiesInTheMapping) {
    const auto ring = Open(1);
    const ReadResult result = ring->ReadData(kSize - 1, 1);
    ASSERT_EQ(1U, result.data.size());
    result.data[0] = 77;
    EXPECT_EQ(77, Data()[kSize - 1]);
}

TEST_P(SharedBufferReading, ViewIsCutAtTheEndAndNeverWrapped) {
    const auto ring = Open(1);
    const struct {
        std::uint64_t index;
        std::uint64_t length;
        std::uint64_t cut;
    } rows[] = {
        {kSize - 4, 16, 4},       {kSize - 16, 16, 16}, {kSize - 17, 16, 16}, {0, kSize, kSize},
        {1, kSize, kSize - 1},    {kSize, 0, 0},        {kSize, kSize, 0},    {0, 0, 0},
        {0, kSize - 1, kSize - 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.index << " " << row.length);
        const ReadResult result = ring->ReadData(row.index, row.length);
        EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
        EXPECT_EQ(row.cut, result.data.size());
    }
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferReading, IndexBehindTheEndIsRefusedBeforeTheLengthIsLookedAt) {
    const auto ring = Open(1);
    for (const std::uint64_t length : {std::uint64_t{0}, kSize + 1}) {
        const ReadResult result = ring->ReadData(kSize + 1, length);
        EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
        ExpectEmpty(result.data);
        EXPECT_EQ("DoReadData " + Name() + " Invalid Read Index: 1025 Size: 1024",
                  TakeErrorText(*ring));
    }
}

TEST_P(SharedBufferReading, LengthAboveTheSizeIsRefused) {
    const auto ring = Open(1);
    ring->DecreaseAvailableSize(1, 1);  // its text is replaced
    const ReadResult result = ring->ReadData(0, kSize + 1);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    ExpectEmpty(result.data);
    EXPECT_EQ("DoReadData " + Name() + " Invalid Read Length: 1025 Size: 1024",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferReading, HeaderIsOnlyLookedAt) {
    const auto ring = Open(1);
    std::copy(header_.begin(), header_.end(), Data() + 100);
    Control().rIdx[1] = 100;
    Control().avail[1] = kHeader;
    const Bytes before = Snapshot();
    for (int look = 0; look < 2; ++look) {
        const ReadResult result = ring->ReadHeader(kHeader);
        EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
        EXPECT_EQ(header_, BytesIn(result.data));
    }
    EXPECT_EQ(before, Snapshot());
}

TEST_P(SharedBufferReading, HeaderThatDoesNotWaitYetIsNoFault) {
    const auto ring = Open(1);
    Control().avail[1] = kHeader - 1;
    const Bytes before = Snapshot();
    const ReadResult result = ring->ReadHeader(kHeader);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, result.status);
    ExpectEmpty(result.data);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferReading, PayloadTakesHeaderAndPayloadTogether) {
    const auto ring = Open(2);
    Control().rIdx[2] = 100;
    Control().avail[2] = 60;
    Bytes payload = CountingBytes(30, 5);
    std::copy(payload.begin(), payload.end(), Data() + 126);
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);

    const PayloadResult result = ring->ReadPayload(30);

    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(126U, result.index);
    EXPECT_EQ(payload, BytesIn(result.data));
    EXPECT_EQ(156U, Control().rIdx[2]);
    EXPECT_EQ(4U, Control().avail[2]);
    EXPECT_EQ(0U, Control().rIdx[1]);
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferReading, PayloadOfExactlyTheBytesThatWaitIsTaken) {
    const auto ring = Open(1);
    Control().avail[1] = 46;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReadPayload(20).status);
    EXPECT_EQ(0U, Control().avail[1]);
}

TEST_P(SharedBufferReading, PayloadThatDoesNotWaitYetIsRefusedWithAText) {
    const auto ring = Open(1);
    Control().avail[1] = 45;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    const Bytes before = Snapshot();
    const PayloadResult result = ring->ReadPayload(20);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, result.status);
    EXPECT_EQ(0U, result.index);
    ExpectEmpty(result.data);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ(
        "DoReadPayload " + Name() + " Trying to read 20 bytes, but only 45 bytes available to read",
        TakeErrorText(*ring));
    // The header stays taken: with the missing byte there the payload can be had.
    Control().avail[1] = 46;
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReadPayload(20).status);
}

TEST_P(SharedBufferReading, RefusedPayloadReplacesAnEarlierText) {
    const auto ring = Open(1);
    ring->DecreaseAvailableSize(1, 1);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadPayload(1).status);
    EXPECT_EQ(
        "DoReadPayload " + Name() + " Trying to read 1 bytes, but only 0 bytes available to read",
        TakeErrorText(*ring));
}

TEST_P(SharedBufferReading, PayloadWithoutAHeaderStartsAtTheReadIndex) {
    const auto ring = Open(1);
    Control().rIdx[1] = 100;
    Control().avail[1] = 50;
    const PayloadResult result = ring->ReadPayload(20);
    EXPECT_EQ(100U, result.index);
    EXPECT_EQ(120U, Control().rIdx[1]);
    EXPECT_EQ(30U, Control().avail[1]);
}

TEST_P(SharedBufferReading, FailedHeaderForgetsTheOneBefore) {
    const auto ring = Open(1);
    Control().avail[1] = 40;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    ASSERT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadHeader(41).status);
    EXPECT_EQ(0U, ring->ReadPayload(20).index);

    Control().avail[1] = kSize + 1;
    Control().rIdx[1] = 0;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    ASSERT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadHeader(kSize + 1).status);
    EXPECT_EQ(0U, ring->ReadPayload(20).index);
}

TEST_P(SharedBufferReading, HeaderLengthStaysUntilTheNextHeaderIsRead) {
    const auto ring = Open(1);
    Control().avail[1] = 200;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    EXPECT_EQ(26U, ring->ReadPayload(4).index);
    EXPECT_EQ(56U, ring->ReadPayload(4).index);
    EXPECT_EQ(60U, Control().rIdx[1]);
    EXPECT_EQ(140U, Control().avail[1]);
}

TEST_P(SharedBufferReading, PayloadBehindAHeaderAtTheEndStartsAtZero) {
    const auto ring = Open(1);
    Control().rIdx[1] = kSize - kHeader;
    Control().avail[1] = 46;
    ASSERT_EQ(kHeader, ring->ReadHeader(kHeader).data.size());
    const PayloadResult result = ring->ReadPayload(20);
    EXPECT_EQ(0U, result.index);
    EXPECT_EQ(20U, result.data.size());
    EXPECT_EQ(20U, Control().rIdx[1]);
}

TEST_P(SharedBufferReading, RecordThatEndsAtTheEndMovesTheReadIndexToZero) {
    const auto ring = Open(1);
    Control().rIdx[1] = kSize - 46;
    Control().avail[1] = 46;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    EXPECT_EQ(20U, ring->ReadPayload(20).data.size());
    EXPECT_EQ(0U, Control().rIdx[1]);
}

TEST_P(SharedBufferReading, CapacityTellsNameLimitAndCount) {
    const auto ring = Open(0, false, 9);
    Control().numPackets = 4;
    const Capacity capacity = ring->GetCurrentCapacity();
    EXPECT_EQ(Name(), capacity.shmName);
    EXPECT_EQ(10U, capacity.maxPackets);
    EXPECT_EQ(4U, capacity.numPackets);
}

}  // namespace
}  // namespace qel::test
