// Writing packets: what the packet buffer asks of the ring, in which order, and what it makes of
// the answers.

#include <array>
#include <functional>

#include "PacketBufferFixture.h"

namespace qel::test {
namespace {

using testing::InSequence;
using testing::Return;

/// One of the three ways to write a packet of the same 5 bytes.
enum class Way { Ordinary, Critical, Gathered };

class PacketBufferWriting : public PacketBufferOnMock, public testing::WithParamInterface<Way> {
protected:
    SMStatusCode Write() {
        switch (GetParam()) {
            case Way::Ordinary:
                return Buffer().WritePacket(MakePacket());
            case Way::Critical:
                return Buffer().WriteCriticalPacket(MakePacket());
            default:
                return Buffer().WriteMultiDataPacket(MakePacket(), spans_);
        }
    }

    /// Expects the next attempt to write the record, with everything that it must pass on.
    void ExpectAttempt(WriteResult answer) {
        const auto header = HeaderBytes(5, 0, -7, 1, 11, 22);
        if (GetParam() == Way::Gathered) {
            EXPECT_CALL(Ring(), DoWriteHeaderMultiData(
                                    HasBytes(header),
                                    testing::ElementsAre(SameView(spans_[0]), SameView(spans_[1]),
                                                         SameView(spans_[2])),
                                    5, false))
                .WillOnce(Return(answer));
        } else {
            EXPECT_CALL(Ring(), DoWriteHeaderPayload(HasBytes(header), SameView(ByteSpan(data_)),
                                                     GetParam() == Way::Critical))
                .WillOnce(Return(answer));
        }
    }

    /// Expects a filler of `room` bytes in all.
    void ExpectFiller(std::uint64_t room, SMStatusCode answer) {
        EXPECT_CALL(Ring(), DoWriteHeaderSkipPayload(
                                HasBytes(HeaderBytes(room - 26, 1, 0, 0, 0, 0)), room - 26))
            .WillOnce(Return(WriteResult{9, answer}));
    }

    std::vector<ByteSpan> spans_{ByteSpan(data_).first(2), ByteSpan(), ByteSpan(data_).subspan(2)};
    InSequence sequence_;
};

TEST_P(PacketBufferWriting, StatusOfTheFirstAttemptIsReturnedUnlessTheRecordWouldWrap) {
    for (const SMStatusCode status : kAllStatuses) {
        if (status != SMStatusCode::WILL_WRAP) {
            ExpectAttempt({3, status});
            EXPECT_EQ(status, Write());
        }
    }
}

TEST_P(PacketBufferWriting, WrapIsFilledUpToTheEndAndTheSameRecordWrittenOnceMore) {
    for (const SMStatusCode status : kAllStatuses) {
        ExpectAttempt({100, SMStatusCode::WILL_WRAP});
        ExpectFiller(100, SMStatusCode::SUCCESS);
        ExpectAttempt({100, status});
        EXPECT_EQ(status == SMStatusCode::WILL_WRAP ? SMStatusCode::INVALID_PARAMETER : status,
                  Write());
    }
}

TEST_P(PacketBufferWriting, FillerThatFindsNoRoomIsAnInvalidParameterOthersAreReturned) {
    for (const SMStatusCode status : kAllStatuses) {
        if (status == SMStatusCode::SUCCESS) {
            continue;
        }
        const bool noRoom =
            status == SMStatusCode::WILL_WRAP || status == SMStatusCode::NOT_ENOUGH_SPACE;
        ExpectAttempt({100, SMStatusCode::WILL_WRAP});
        ExpectFiller(100, status);
        EXPECT_EQ(noRoom ? SMStatusCode::INVALID_PARAMETER : status, Write());
    }
}

TEST_P(PacketBufferWriting, RoomOfOneHeaderIsFilledByABareHeader) {
    ExpectAttempt({26, SMStatusCode::WILL_WRAP});
    ExpectFiller(26, SMStatusCode::SUCCESS);
    ExpectAttempt({31, SMStatusCode::SUCCESS});
    EXPECT_EQ(SMStatusCode::SUCCESS, Write());
}

TEST_P(PacketBufferWriting, RoomTooSmallForAFillerIsAnInvalidParameter) {
    for (const std::uint64_t room : {0U, 1U, 25U}) {
        ExpectAttempt({room, SMStatusCode::WILL_WRAP});
        EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, Write());
    }
}

std::string WayName(const testing::TestParamInfo<Way>& way) {
    constexpr std::array kNames{"Ordinary", "Critical", "Gathered"};
    return kNames.at(static_cast<std::size_t>(way.param));
}
INSTANTIATE_TEST_SUITE_P(Ways, PacketBufferWriting,
                         testing::Values(Way::Ordinary, Way::Critical, Way::Gathered), WayName);

class PacketBufferWrite : public PacketBufferOnMock {};

TEST_F(PacketBufferWrite, PacketsOwnHeaderIsLeftAsItIs) {
    const Packet packet = MakePacket();
    EXPECT_CALL(Ring(), DoWriteHeaderPayload)
        .WillOnce(Return(WriteResult{0, SMStatusCode::SUCCESS}));
    EXPECT_EQ(SMStatusCode::SUCCESS, Buffer().WritePacket(packet));
    EXPECT_EQ(12345U, Copied(packet.header.length));
}

TEST_F(PacketBufferWrite, ClientsIgnoreFlagIsPassedOn) {
    Packet packet;
    packet.header.ignoreData = true;
    EXPECT_CALL(Ring(), DoWriteHeaderPayload(HasBytes(HeaderBytes(0, 1, 0, 0, 0, 0)),
                                             testing::SizeIs(0), false))
        .WillOnce(Return(WriteResult{0, SMStatusCode::SUCCESS}));
    EXPECT_EQ(SMStatusCode::SUCCESS, Buffer().WritePacket(packet));
}

TEST_F(PacketBufferWrite, GatheredPacketOfNoSpansHasLengthZeroWhateverItsData) {
    EXPECT_CALL(Ring(), DoWriteHeaderMultiData(HasBytes(HeaderBytes(0, 0, -7, 1, 11, 22)),
                                               testing::IsEmpty(), 0, false))
        .WillOnce(Return(WriteResult{0, SMStatusCode::SUCCESS}));
    EXPECT_EQ(SMStatusCode::SUCCESS, Buffer().WriteMultiDataPacket(MakePacket(), {}));
}

}  // namespace
}  // namespace qel::test
