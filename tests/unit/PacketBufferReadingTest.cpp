// Reading and releasing packets, and what is passed through to the ring.

#include <csignal>
#include <limits>

#include "PacketBufferFixture.h"

namespace qel::test {
namespace {

using testing::Return;

class PacketBufferReading : public PacketBufferOnMock {
protected:
    static void ExpectNothingRead(const ReadNextPacketResult& result) {
        EXPECT_EQ(0U, result.index);
        EXPECT_EQ(0U, result.packet.data.size());
        EXPECT_EQ(nullptr, result.packet.data.data());
        const auto* const header = reinterpret_cast<const unsigned char*>(&result.packet.header);
        EXPECT_EQ(std::vector<unsigned char>(26, 0),
                  std::vector<unsigned char>(header, header + 26));
    }

    void GiveHeader(ByteSpan bytes) {
        EXPECT_CALL(Ring(), DoReadHeader(26))
            .WillOnce(Return(ReadResult{bytes, SMStatusCode::SUCCESS}));
    }

    testing::InSequence sequence_;
};

TEST_F(PacketBufferReading, PacketIsTheHeadersCopyAndAViewOfThePayload) {
    auto header = HeaderBytes(5, 1, -9, 1, 33, 44);
    GiveHeader(header);
    EXPECT_CALL(Ring(), DoReadPayload(5))
        .WillOnce(Return(PayloadResult{data_, 777, SMStatusCode::SUCCESS}));

    const ReadNextPacketResult result = Buffer().ReadNextPacket();

    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(777U, result.index);
    EXPECT_EQ(data_.data(), result.packet.data.data());
    EXPECT_EQ(5U, result.packet.data.size());
    header.assign(26, 0);  // a copy does not follow
    EXPECT_EQ(5U, Copied(result.packet.header.length));
    EXPECT_TRUE(result.packet.header.ignoreData);
    EXPECT_EQ(-9, Copied(result.packet.header.pts));
    EXPECT_TRUE(result.packet.header.key);
    EXPECT_EQ(33U, Copied(result.packet.header.timestampSec));
    EXPECT_EQ(44U, Copied(result.packet.header.timestampUsec));
}

TEST_F(PacketBufferReading, HeaderThatIsNotReadIsReturnedAsItsStatus) {
    for (const SMStatusCode status : kAllStatuses) {
        if (status == SMStatusCode::SUCCESS) {
            continue;
        }
        EXPECT_CALL(Ring(), DoReadHeader(26)).WillOnce(Return(ReadResult{data_, status}));
        const ReadNextPacketResult result = Buffer().ReadNextPacket();
        EXPECT_EQ(status, result.status);
        ExpectNothingRead(result);
    }
}

TEST_F(PacketBufferReading, PayloadThatIsMissingIsAnInconsistentRingOthersAreReturned) {
    auto header = HeaderBytes(5, 1, -9, 1, 33, 44);
    for (const SMStatusCode status : kAllStatuses) {
        if (status == SMStatusCode::SUCCESS) {
            continue;
        }
        GiveHeader(header);
        EXPECT_CALL(Ring(), DoReadPayload(5)).WillOnce(Return(PayloadResult{data_, 777, status}));
        const ReadNextPacketResult result = Buffer().ReadNextPacket();
        EXPECT_EQ(
            status == SMStatusCode::DATA_NOT_AVAILABLE ? SMStatusCode::INVALID_PARAMETER : status,
            result.status);
        ExpectNothingRead(result);
    }
}

TEST_F(PacketBufferReading, HeaderCutShortIsFilledUpWithZeros) {
    for (std::size_t length = 0; length <= 26; ++length) {
        SCOPED_TRACE(length);
        std::vector<unsigned char> header(length, 1);
        auto expected = header;
        expected.resize(26, 0);
        const std::uint64_t announced = HeaderOf(expected).length;
        GiveHeader(header);
        EXPECT_CALL(Ring(), DoReadPayload(announced))
            .WillOnce(Return(PayloadResult{{}, 0, SMStatusCode::SUCCESS}));
        const Packet packet = Buffer().ReadNextPacket().packet;
        const auto* const start = reinterpret_cast<const unsigned char*>(&packet.header);
        EXPECT_EQ(expected, std::vector<unsigned char>(start, start + 26));
    }
}

TEST_F(PacketBufferReading, FlagsAreZeroOrOneWhateverStandsInTheRing) {
    auto header = HeaderBytes(0, 2, 0, 0xFF, 0, 0);
    GiveHeader(header);
    EXPECT_CALL(Ring(), DoReadPayload(0))
        .WillOnce(Return(PayloadResult{{}, 0, SMStatusCode::SUCCESS}));
    const Packet packet = Buffer().ReadNextPacket().packet;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&packet.header);
    EXPECT_EQ(1, bytes[8]);
    EXPECT_EQ(1, bytes[17]);
    EXPECT_EQ(2, header[8]);  // the ring itself is not touched
}

TEST(PacketBufferReadingDeathTest, HeaderLongerThanAHeaderEndsTheProcess) {
    std::vector<unsigned char> header(27);
    testing::NiceMock<MockRing>* const ring = new testing::NiceMock<MockRing>;
    testing::Mock::AllowLeak(ring);
    ON_CALL(*ring, DoReadHeader(26))
        .WillByDefault(Return(ReadResult{header, SMStatusCode::SUCCESS}));
    SharedPacketBuffer buffer{std::unique_ptr<SharedBufferIF>(ring)};
    EXPECT_EXIT((void)buffer.ReadNextPacket(), testing::KilledBySignal(SIGABRT),
                "terminate called without an active exception");
}

class PacketBufferRelease : public PacketBufferOnMock {
protected:
    static Packet Sized(std::vector<unsigned char>& bytes) {
        Packet packet;
        packet.header.length = 5000;  // only the view counts
        packet.data = bytes;
        return packet;
    }

    std::vector<unsigned char> ten_ = std::vector<unsigned char>(10);
    std::vector<unsigned char> twenty_ = std::vector<unsigned char>(20);
    std::vector<unsigned char> thirty_ = std::vector<unsigned char>(30);
};

TEST_F(PacketBufferRelease, PacketReleasesItsHeaderAndData) {
    for (const SMStatusCode status : kAllStatuses) {
        EXPECT_CALL(Ring(), DoReleaseData(36, 1)).WillOnce(Return(status)).RetiresOnSaturation();
        EXPECT_EQ(status, Buffer().ReleasePacket(Sized(ten_)));
    }
    EXPECT_CALL(Ring(), DoReleaseData(26, 1)).WillOnce(Return(SMStatusCode::SUCCESS));
    EXPECT_EQ(SMStatusCode::SUCCESS, Buffer().ReleasePacket({}));
}

TEST_F(PacketBufferRelease, SeveralPacketsAreReleasedInOneStepAndCountAsOne) {
    for (const SMStatusCode status : kAllStatuses) {
        EXPECT_CALL(Ring(), DoReleaseData(138, 1)).WillOnce(Return(status)).RetiresOnSaturation();
        EXPECT_EQ(status, Buffer().ReleasePackets({Sized(ten_), Sized(twenty_), Sized(thirty_)}));
    }
}

TEST_F(PacketBufferRelease, NoPacketsStillReleaseZeroBytesAndOnePacket) {
    EXPECT_CALL(Ring(), DoReleaseData(0, 1)).WillOnce(Return(SMStatusCode::WILL_WRAP));
    EXPECT_EQ(SMStatusCode::WILL_WRAP, Buffer().ReleasePackets({}));
}

class PacketBufferForwarding : public PacketBufferOnMock {};

TEST_F(PacketBufferForwarding, PrintPassesTheLevelOn) {
    EXPECT_CALL(Ring(), DoPrint(LogLevel::Info));
    Buffer().Print(LogLevel::Info);
}

TEST_F(PacketBufferForwarding, CapacityIsTheRings) {
    EXPECT_CALL(Ring(), DoGetCurrentCapacity()).WillOnce(Return(Capacity{"video", 9, 8}));
    const Capacity capacity = Buffer().GetCurrentCapacity();
    EXPECT_EQ("video", capacity.shmName);
    EXPECT_EQ(9U, capacity.maxPackets);
    EXPECT_EQ(8U, capacity.numPackets);
}

TEST_F(PacketBufferForwarding, DataReadIsTheRings) {
    constexpr auto kHuge = std::numeric_limits<std::uint64_t>::max();
    for (const SMStatusCode status : kAllStatuses) {
        EXPECT_CALL(Ring(), DoReadData(kHuge, kHuge - 1))
            .WillOnce(Return(ReadResult{data_, status}))
            .RetiresOnSaturation();
        const ReadResult result = Buffer().ReadData(kHuge, kHuge - 1);
        EXPECT_EQ(status, result.status);
        EXPECT_EQ(data_.data(), result.data.data());
    }
}

class MortalRing : public MockRing {
public:
    explicit MortalRing(bool& gone) : gone_(gone) {}
    ~MortalRing() override { gone_ = true; }

private:
    bool& gone_;
};

TEST(PacketBufferOwnership, RingGoesWithTheBuffer) {
    bool gone = false;
    auto buffer = std::make_unique<SharedPacketBuffer>(std::make_unique<MortalRing>(gone));
    EXPECT_FALSE(gone);
    buffer.reset();
    EXPECT_TRUE(gone);
}

}  // namespace
}  // namespace qel::test
