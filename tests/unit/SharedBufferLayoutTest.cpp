// The bytes of a segment, as other processes see them, and who initialises them.

#include <cstring>
#include <limits>
#include <sstream>

#include "RingHarness.h"

namespace qel::test {
namespace {

class SharedBufferLayout : public RingTest {
protected:
    template <typename T>
    T At(std::size_t offset) {
        T value;
        std::memcpy(&value, Snapshot().data() + offset, sizeof(T));
        return value;
    }
    std::uint64_t Word(std::size_t offset) { return At<std::uint64_t>(offset); }
};
QEV_ON_EVERY_KERNEL(SharedBufferLayout);

TEST_P(SharedBufferLayout, FreshSegmentIsZeroButForWhatTheInitialiserWrites) {
    const auto ring = Open(0, false, 4);
    Bytes expected(kSize + 152, 0);
    const std::uint64_t size = kSize;
    const std::uint64_t half = 512;
    const std::uint64_t quarter = 256;
    const std::uint32_t limit = 5;
    std::memcpy(&expected[0], &size, 8);
    expected[124] = 1;
    std::memcpy(&expected[128], &limit, 4);
    std::memcpy(&expected[136], &half, 8);
    std::memcpy(&expected[144], &quarter, 8);
    EXPECT_EQ(expected, Snapshot());
}

TEST_P(SharedBufferLayout, FieldsStandWhereOtherProcessesLookForThem) {
    const auto ring = Open(0);
    for (std::size_t node = 0; node < 5; ++node) {
        Control().avail.at(node) = 100 + node;
        Control().wIdx.at(node) = 200 + node;
        Control().rIdx.at(node) = 300 + node;
    }
    Control().numPackets = 400;
    Control().maxPackets = 500;
    Control().halfSize = 600;
    Control().quarterSize = 700;
    for (std::size_t node = 0; node < 5; ++node) {
        EXPECT_EQ(100 + node, Word(8 * node));
        EXPECT_EQ(200 + node, Word(40 + 8 * node));
        EXPECT_EQ(300 + node, Word(80 + 8 * node));
    }
    EXPECT_EQ(400U, At<std::uint32_t>(120));
    EXPECT_EQ(1U, At<std::uint8_t>(124));
    EXPECT_EQ(500U, At<std::uint32_t>(128));
    EXPECT_EQ(600U, Word(136));
    EXPECT_EQ(700U, Word(144));
}

TEST_P(SharedBufferLayout, DataAreaFollowsTheControlBlock) {
    const auto ring = Open(0);
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*ring, 4).status);
    const Bytes segment = Snapshot();
    EXPECT_EQ(header_, Bytes(segment.begin() + 152, segment.begin() + 178));
    EXPECT_EQ(payload_, Bytes(segment.begin() + 178, segment.begin() + 182));
}

TEST_P(SharedBufferLayout, NoFrameLimitLeavesThePacketLimitAtZero) {
    const auto ring = Open(0, false, 0);
    EXPECT_EQ(0U, At<std::uint32_t>(128));
}

TEST_P(SharedBufferLayout, HighestFrameLimitWrapsToNoLimit) {
    const auto ring = Open(0, false, std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(0U, At<std::uint32_t>(128));
    EXPECT_EQ(0U, ring->GetCurrentCapacity().maxPackets);
}

TEST_P(SharedBufferLayout, SecondOpenerChangesNothingWhateverItsDescriptionSays) {
    const auto first = Open(0, false, 4);
    Control().avail[0] = 77;
    Control().wIdx[0] = 5;
    Control().numPackets = 2;
    const Bytes before = Snapshot();
    auto info = Info(1, true, 90);
    info.shmSize = 2048;
    const SharedBuffer second(System(), info);
    EXPECT_EQ(before, Snapshot());
}

TEST_P(SharedBufferLayout, AnyValueOfTheInitialisedByteButZeroCounts) {
    { const auto ring = Open(0); }
    Control().initialised = 7;
    Control().avail[0] = 3;
    const auto ring = Open(0, false, 6);
    EXPECT_EQ(1U, At<std::uint8_t>(124));
    EXPECT_EQ(3U, Word(0));
    EXPECT_EQ(0U, At<std::uint32_t>(128));
}

TEST_P(SharedBufferLayout, SecondMappingShowsTheSameBytes) {
    const auto first = Open(0);
    const auto second = Open(1);
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*first, 20).status);
    EXPECT_EQ(header_, BytesIn(second->ReadHeader(kHeader).data));
}

TEST_P(SharedBufferLayout, SegmentOutlivesItsBuffersWithItsCounters) {
    Open(0, false, 4)->IncrementPackets();
    EXPECT_EQ(SMStatusCode::SUCCESS, Write(*Open(0), 20).status);
    const Bytes before = Snapshot();
    const auto again = Open(0);
    EXPECT_EQ(before, Snapshot());
    EXPECT_EQ(92U, Write(*again, 20).index);
    EXPECT_EQ(3U, again->GetCurrentCapacity().numPackets);
}

TEST_P(SharedBufferLayout, WriterFindsNoSpaceBeforeTheInitialiserHasGivenIt) {
    { const auto ring = Open(0); }
    Control().avail[0] = 0;  // as between the initialiser's exchange and its store
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, Write(*Open(0), 1, true).status);
}

TEST_P(SharedBufferLayout, SmallerSegmentIsGrown) {
    auto info = Info(0);
    info.shmSize = 100;
    { const SharedBuffer small(System(), info); }
    const auto grown = Open(1);
    EXPECT_EQ(100U, Word(0));
    Data()[kSize - 1] = 9;
    EXPECT_EQ(9, grown->ReadData(kSize - 1, 1).data[0]);
}

TEST(SharedBufferSizes, HalfAndQuarterAreShiftedDown) {
    RingHarness ring(std::make_shared<FakeKernel>(), 1023);
    const auto buffer = ring.Open(0);
    EXPECT_EQ(511U, ring.Control().halfSize);
    EXPECT_EQ(255U, ring.Control().quarterSize);
    EXPECT_EQ(1023U, ring.Control().avail[0]);
}

TEST(BufferInfoText, AllFieldsStandOnOneLineAndTheIndexIsANumber) {
    std::ostringstream text;
    text << SharedBufferIF::BufferInfo{"video", 18446744073709551615U, 3, true, 4294967295U};
    EXPECT_EQ(
        "shmName: video shmSize: 18446744073709551615 nodeIdx: 3 sink: 1 maxFrames: 4294967295",
        text.str());
}

TEST(BufferInfoText, DefaultsAreZeroAndTheFlagFollowsTheStream) {
    std::ostringstream text;
    text << std::boolalpha << SharedBufferIF::BufferInfo{};
    EXPECT_EQ("shmName:  shmSize: 0 nodeIdx: 0 sink: false maxFrames: 0", text.str());
}

TEST(StatusText, EveryStatusHasItsNumberAndItsName) {
    const char* const names[] = {"SUCCESS",          "INVALID_PARAMETER",  "SHARED_MEMORY_FAILURE",
                                 "NOT_ENOUGH_SPACE", "DATA_NOT_AVAILABLE", "WILL_WRAP",
                                 "Unknown Status"};
    for (int value = 0; value < 7; ++value) {
        std::ostringstream text;
        text << static_cast<SMStatusCode>(value);
        EXPECT_EQ(names[value], text.str());
    }
    for (const int value : {-1, 7, 255, std::numeric_limits<int>::max()}) {
        std::ostringstream text;
        text << static_cast<SMStatusCode>(value);
        EXPECT_EQ("Unknown Status", text.str());
    }
}

}  // namespace
}  // namespace qel::test
