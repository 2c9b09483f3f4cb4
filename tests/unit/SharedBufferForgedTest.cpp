// What a broken peer has written into the control block, and sizes that make no ring: no operation
// touches memory outside the data area or divides by zero.

#include <csignal>
#include <limits>

#include "RingHarness.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();
constexpr const char* kContract = "terminate called without an active exception";

class SharedBufferForged : public RingTest {
protected:
    std::string WriteIndexText(const char* operation, std::uint64_t index, std::uint64_t header) {
        return std::string(operation) + " " + Name() +
               " Invalid Write Index: " + std::to_string(index) +
               " Header: " + std::to_string(header) + " Size: 1024";
    }
};
QEV_ON_EVERY_KERNEL(SharedBufferForged);

TEST_P(SharedBufferForged, WriteIndexOutsideTheRingIsRefusedAndNothingChanges) {
    const auto ring = Open(0, false, 4);
    for (const std::uint64_t index :
         {kSize, kSize + 1, std::uint64_t{1} << 40U, kHuge - 45, kHuge}) {
        SCOPED_TRACE(index);
        Control().wIdx[0] = index;
        const Bytes before = Snapshot();
        const WriteResult written = Write(*ring, 20);
        EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, written.status);
        EXPECT_EQ(0U, written.index);
        EXPECT_EQ(WriteIndexText("DoWriteHeaderMultiData", index, kHeader), TakeErrorText(*ring));
        const WriteResult filled = Fill(*ring, 20);
        EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, filled.status);
        EXPECT_EQ(0U, filled.index);
        EXPECT_EQ(WriteIndexText("DoWriteHeaderSkipPayload", index, kHeader), TakeErrorText(*ring));
        EXPECT_EQ(before, Snapshot());
    }
}

TEST_P(SharedBufferForged, HeaderLongerThanTheRingIsRefused) {
    const auto ring = Open(0);
    Bytes header(kSize + 1, 1);
    Bytes payload;
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE,
              ring->WriteHeaderPayload(header, payload, true).status);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, ring->WriteHeaderSkipPayload(header, 0).status);

    Control().avail[0] = kHuge;  // forged, so that the space suffices
    const Bytes before = Snapshot();
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER,
              ring->WriteHeaderPayload(header, payload, false).status);
    EXPECT_EQ(WriteIndexText("DoWriteHeaderMultiData", 0, kSize + 1), TakeErrorText(*ring));
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->WriteHeaderSkipPayload(header, 0).status);
    EXPECT_EQ(WriteIndexText("DoWriteHeaderSkipPayload", 0, kSize + 1), TakeErrorText(*ring));
    EXPECT_EQ(before, Snapshot());
}

TEST_P(SharedBufferForged, HeaderAsLongAsTheRingIsWritten) {
    const auto ring = Open(0);
    Bytes header = CountingBytes(kSize, 0);
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->WriteHeaderPayload(header, {}, true).status);
    EXPECT_EQ(header, DataAt(0, kSize));
}

TEST_P(SharedBufferForged, PacketLongerThanTheRingAsksForAFillThatCannotHelp) {
    const auto ring = Open(0);
    Control().avail[0] = kHuge;
    const WriteResult result = Write(*ring, 2 * kSize);
    EXPECT_EQ(SMStatusCode::WILL_WRAP, result.status);
    EXPECT_EQ(kSize, result.index);
}

TEST_P(SharedBufferForged, StatedSizeWhoseSumsOverflowNeverLeavesTheDataArea) {
    const auto ring = Open(0);
    Control().wIdx[0] = kSize - 14;
    const std::uint64_t minusForty = kHuge - 39;
    const WriteResult result = ring->WriteHeaderMultiData(header_, {}, minusForty, false);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    EXPECT_EQ(12U, result.index);
    EXPECT_EQ(CountingBytes(14, 1), DataAt(kSize - 14, 14));
    EXPECT_EQ(CountingBytes(12, 15), DataAt(0, 12));
    EXPECT_EQ(0U, Control().avail[0]);
    EXPECT_EQ(kSize, Control().avail[1]);
}

TEST_P(SharedBufferForged, ReadIndexOutsideTheRingIsRefused) {
    const auto ring = Open(1);
    Control().avail[1] = 100;
    for (const std::uint64_t index : {kSize + 1, kHuge}) {
        Control().rIdx[1] = index;
        const Bytes before = Snapshot();
        const ReadResult header = ring->ReadHeader(kHeader);
        EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, header.status);
        EXPECT_EQ(0U, header.data.size());
        EXPECT_EQ(before, Snapshot());
        EXPECT_EQ("DoReadData " + Name() + " Invalid Read Index: " + std::to_string(index) +
                      " Size: 1024",
                  TakeErrorText(*ring));
    }
}

TEST_P(SharedBufferForged, ReadIndexNearTheEndShortensTheHeader) {
    const auto ring = Open(1);
    Control().avail[1] = 100;
    Control().rIdx[1] = kSize - 5;
    EXPECT_EQ(5U, ring->ReadHeader(kHeader).data.size());
    Control().rIdx[1] = kSize;
    const ReadResult atEnd = ring->ReadHeader(kHeader);
    EXPECT_EQ(SMStatusCode::SUCCESS, atEnd.status);
    EXPECT_EQ(0U, atEnd.data.size());
}

TEST_P(SharedBufferForged, ReadIndexOutsideTheRingIsBroughtBackByThePayload) {
    const auto ring = Open(1);
    Control().avail[1] = 100;
    Control().rIdx[1] = 3 * kSize + 7;
    const PayloadResult payload = ring->ReadPayload(20);
    EXPECT_EQ(SMStatusCode::SUCCESS, payload.status);
    EXPECT_EQ(7U, payload.index);
    EXPECT_EQ(27U, Control().rIdx[1]);
}

TEST_P(SharedBufferForged, LengthWhoseSumWithTheHeaderOverflowsIsRefusedByTheDataArea) {
    const auto ring = Open(1);
    Control().avail[1] = 100;
    ASSERT_EQ(SMStatusCode::SUCCESS, ring->ReadHeader(kHeader).status);
    const PayloadResult payload = ring->ReadPayload(kHuge - 9);  // 26 + length is 16
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, payload.status);
    EXPECT_EQ(0U, payload.data.size());
    EXPECT_EQ(26U, payload.index);
    EXPECT_EQ(84U, Control().avail[1]);
    EXPECT_EQ(16U, Control().rIdx[1]);
    EXPECT_EQ("DoReadData " + Name() + " Invalid Read Length: 18446744073709551606 Size: 1024",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferForged, LengthAboveTheRingIsRefusedThoughTheCounterAllowsIt) {
    const auto ring = Open(1);
    Control().avail[1] = kHuge;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadHeader(kSize + 1).status);
    EXPECT_EQ("DoReadData " + Name() + " Invalid Read Length: 1025 Size: 1024",
              TakeErrorText(*ring));
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadPayload(kSize + 1).status);
}

TEST_P(SharedBufferForged, ReleaseOfAnyAmountIsClamped) {
    const auto ring = Open(1, true, 4);
    Control().numPackets = 1;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER,
              ring->ReleaseData(kHuge, std::numeric_limits<std::uint32_t>::max()));
    EXPECT_EQ(kSize, Control().avail[0]);
    EXPECT_EQ(0U, Control().numPackets);
}

class SharedBufferForgedDeathTest : public RingTest {};
QEV_ON_EVERY_KERNEL(SharedBufferForgedDeathTest);

TEST_P(SharedBufferForgedDeathTest, CopyFromOutsideTheDataAreaEndsTheProcess) {
    const auto ring = Open(0);
    Bytes data(4);
    EXPECT_EXIT(ring->WriteData(kSize + 1, data), testing::KilledBySignal(SIGABRT), kContract);
}

TEST_P(SharedBufferForgedDeathTest, SpansThatLapTheRingEndTheProcess) {
    const auto ring = Open(0);
    Bytes twice(2 * kSize);
    EXPECT_EXIT((void)ring->WriteHeaderMultiData(header_, {twice}, 0, true),
                testing::KilledBySignal(SIGABRT), kContract);
}

class RingOfSizeZero : public testing::TestWithParam<Kernel>, protected RingHarness {
protected:
    RingOfSizeZero() : RingHarness(SystemOf(GetParam()), 0) {}
    Bytes header_ = CountingBytes(kHeader, 1);
};
QEV_ON_EVERY_KERNEL(RingOfSizeZero);

TEST_P(RingOfSizeZero, EveryOperationHasADefinedStatus) {
    const auto ring = Open(0);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, ring->WriteHeaderPayload(header_, {}, true).status);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, ring->WriteHeaderSkipPayload(header_, 0).status);
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->WriteHeaderPayload({}, {}, false).status);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadHeader(kHeader).status);
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReadData(0, 0).status);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(1, 0).status);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(0, 1).status);
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReadPayload(0).status);
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadPayload(1).status);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReleaseData(1, 1));
    EXPECT_TRUE(ring->Consume(5));
    EXPECT_EQ(0U, Control().rIdx[0]);
}

TEST_P(RingOfSizeZero, ForgedCountersHaveADefinedStatusToo) {
    const auto ring = Open(0);
    Control().avail[0] = kHuge;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->WriteHeaderPayload(header_, {}, true).status);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->WriteHeaderSkipPayload(header_, 0).status);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadHeader(kHeader).status);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadPayload(kHeader).status);
    EXPECT_EQ(0U, Control().rIdx[0]);
}

TEST(RingSizeDeathTest, NegativeSizeEndsTheProcessOnceTheSegmentIsMapped) {
    const auto kernel = std::make_shared<FakeKernel>();
    for (const std::uint64_t size : {std::uint64_t{1} << 63U, kHuge - 99, kHuge}) {
        const SharedBufferIF::BufferInfo info{"negative", size, 0, false, 0};
        EXPECT_EXIT(SharedBuffer(kernel, info), testing::KilledBySignal(SIGABRT), kContract);
    }
}

TEST(RingSize, LargestPositiveSizeIsNoContractViolation) {
    const auto kernel = std::make_shared<FakeKernel>();
    const std::uint64_t size = (std::uint64_t{1} << 63U) - 1;
    const SharedBuffer ring(kernel, {"largest", size, 0, false, 0});
    EXPECT_EQ("ftruncate(3, -9223372036854775657)", kernel->Calls().at(1));
    EXPECT_EQ("mmap(null, 9223372036854775959, 3, 1, 3, 0)", kernel->Calls().at(2));
}

TEST(RingSize, NegativeSizeThatTheKernelRefusesIsTheKernelsRefusal) {
    const UniqueRingName name;
    const CapturedLog log;
    const SharedBufferIF::BufferInfo info{name.Name(), std::uint64_t{1} << 63U, 0, false, 0};
    EXPECT_THROW(SharedBuffer(SysFactory::Create(""), info), std::runtime_error);
    ASSERT_EQ(1U, log.Records().size());
    EXPECT_EQ(name.Name() + " Problem Allocating Shared Memory - 22", log.Records()[0].text);
}

}  // namespace
}  // namespace qel::test
