// Handing bytes on along the chain, and telling the ring's state.

#include "RingHarness.h"

namespace qel::test {
namespace {

class SharedBufferRelease : public RingTest {};
QEV_ON_EVERY_KERNEL(SharedBufferRelease);

TEST_P(SharedBufferRelease, NodeHandsBytesToTheNextAndIgnoresTheCount) {
    for (std::uint8_t node = 0; node < 4; ++node) {
        SCOPED_TRACE(int{node});
        const auto ring = Open(node, false, 4);
        Control().numPackets = 2;
        const std::uint64_t before = Control().avail.at(node);
        EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReleaseData(30, 9));
        EXPECT_EQ(30U, Control().avail.at(node + 1U));
        EXPECT_EQ(before, Control().avail.at(node));
        EXPECT_EQ(2U, Control().numPackets);
        Control().avail.at(node + 1U) = 0;
    }
}

TEST_P(SharedBufferRelease, SinkGivesBytesBackToTheWriterAndCountsPacketsOut) {
    for (std::uint8_t node = 0; node < 5; ++node) {
        SCOPED_TRACE(int{node});
        const auto ring = Open(node, true, 4);
        Control().avail[0] = 900;
        Control().numPackets = 3;
        EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReleaseData(30, 2));
        EXPECT_EQ(930U, Control().avail[0]);
        EXPECT_EQ(1U, Control().numPackets);
        EXPECT_EQ(0U, Control().avail[1]);
    }
}

TEST_P(SharedBufferRelease, MoreThanFitsFillsTheNextNodeUpAndIsReported) {
    const auto ring = Open(1);
    Control().avail[2] = 1000;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReleaseData(25, 1));
    EXPECT_EQ(kSize, Control().avail[2]);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReleaseData(99, 1));
    EXPECT_EQ("IncreaseAvailableSize " + Name() +
                  " Releasing too much [total=1024][current available=1000], releasing 25",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferRelease, SinkThatReleasesTooManyPacketsIsReportedAndItsBytesCount) {
    const auto ring = Open(1, true, 4);
    Control().avail[0] = 500;
    Control().numPackets = 2;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReleaseData(30, 3));
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ(530U, Control().avail[0]);
    EXPECT_EQ("DecrementPackets " + Name() + " Releasing too many packets 3, numPackets 2",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferRelease, SinkThatReleasesTooManyBytesStillCountsItsPackets) {
    const auto ring = Open(1, true, 4);
    Control().numPackets = 2;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReleaseData(1, 1));
    EXPECT_EQ(1U, Control().numPackets);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReleaseData(1, 5));
    EXPECT_EQ(0U, Control().numPackets);
    EXPECT_EQ("IncreaseAvailableSize " + Name() +
                  " Releasing too much [total=1024][current available=1024], releasing 1",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferRelease, SinkIgnoresTheCountWithoutAPacketLimit) {
    const auto ring = Open(1, true);
    Control().avail[0] = 500;
    EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReleaseData(30, 3));
    EXPECT_EQ(530U, Control().avail[0]);
}

TEST_P(SharedBufferRelease, RecordTravelsThroughFiveNodesAndItsSpaceComesBack) {
    const auto source = Open(0, false, 4);
    ASSERT_EQ(SMStatusCode::SUCCESS, Write(*source, 20).status);
    for (std::uint8_t node = 1; node < kMaxNodes; ++node) {
        SCOPED_TRACE(int{node});
        const auto ring = Open(node, node + 1U == kMaxNodes);
        EXPECT_EQ(1U, Control().numPackets);
        EXPECT_EQ(header_, BytesIn(ring->ReadHeader(kHeader).data));
        EXPECT_EQ(payload_, BytesIn(ring->ReadPayload(20).data));
        EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, ring->ReadHeader(kHeader).status);
        EXPECT_EQ(SMStatusCode::SUCCESS, ring->ReleaseData(46, 1));
        EXPECT_EQ(46U, Control().rIdx.at(node));
    }
    EXPECT_EQ(kSize, Control().avail[0]);
    EXPECT_EQ(0U, Control().numPackets);
}

class SharedBufferPrinting : public RingTest {};
QEV_ON_EVERY_KERNEL(SharedBufferPrinting);

TEST_P(SharedBufferPrinting, OneRecordOfSevenLinesTellsAllCounters) {
    const auto ring = Open(3, false, 8);
    for (std::size_t node = 0; node < kMaxNodes; ++node) {
        Control().wIdx.at(node) = 10 + node;
        Control().rIdx.at(node) = 20 + node;
        Control().avail.at(node) = 30 + node;
    }
    Control().numPackets = 7;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(2000, 0).status);

    const CapturedLog log(LogLevel::Debug);
    ring->Print(LogLevel::Info);

    ASSERT_EQ(1U, log.Records().size());
    const LogRecord& record = log.Records()[0];
    EXPECT_EQ("common/lib/SharedMemory/src/SharedBuffer", record.sourcePath);
    EXPECT_EQ("DoPrint", record.operation);
    EXPECT_EQ(568U, record.line);
    EXPECT_EQ(LogLevel::Info, record.level);
    EXPECT_EQ(static_cast<LogCategory>(0x8010), record.category);
    EXPECT_EQ(" {" + Name() +
                  "} my node index 3\n"
                  " Error String: DoReadData " +
                  Name() +
                  " Invalid Read Index: 2000 Size: 1024\n"
                  "  Node[0]: wIdx=10, rIdx=20, avail=30, numPackets=7 of 9\n"
                  "  Node[1]: wIdx=11, rIdx=21, avail=31, numPackets=7 of 9\n"
                  "  Node[2]: wIdx=12, rIdx=22, avail=32, numPackets=7 of 9\n"
                  "  Node[3]: wIdx=13, rIdx=23, avail=33, numPackets=7 of 9\n"
                  "  Node[4]: wIdx=14, rIdx=24, avail=34, numPackets=7 of 9\n",
              record.text);
}

TEST_P(SharedBufferPrinting, PrintingClearsTheText) {
    const auto ring = Open(1);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(2000, 0).status);
    EXPECT_NE("", TakeErrorText(*ring));
    EXPECT_EQ("", TakeErrorText(*ring));
}

TEST_P(SharedBufferPrinting, DisabledLevelNeitherLogsNorClears) {
    const auto ring = Open(1);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, ring->ReadData(2000, 0).status);
    {
        const CapturedLog log(LogLevel::Warning);
        ring->Print(LogLevel::Notice);
        EXPECT_TRUE(log.Records().empty());
    }
    EXPECT_EQ("DoReadData " + Name() + " Invalid Read Index: 2000 Size: 1024",
              TakeErrorText(*ring));
}

TEST_P(SharedBufferPrinting, PrintingChangesNothingInTheSegment) {
    const auto ring = Open(1);
    const Bytes before = Snapshot();
    TakeErrorText(*ring);
    EXPECT_EQ(before, Snapshot());
}

}  // namespace
}  // namespace qel::test
