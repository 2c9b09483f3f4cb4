#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "PacketWriter.h"
#include "RingRules.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::_;
using testing::Return;
using testing::StrictMock;

constexpr std::uint64_t kSize = 1000;

bool Always() {
    return true;
}

TEST(PacketWriter, WaitsUntilThereIsRoom) {
    StrictMock<MockPacketBuffer> ring;
    EXPECT_CALL(ring, DoWritePacket(_))
        .WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE))
        .WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE))
        .WillOnce(Return(SMStatusCode::SUCCESS));
    PacketWriter writer(ring, kSize);
    EXPECT_EQ(writer.Write(OwnedPacket(10).Get()), WriteOutcome::Written);
}

TEST(PacketWriter, StopEndsTheWaitAfterOneAttempt) {
    StrictMock<MockPacketBuffer> ring;
    EXPECT_CALL(ring, DoWritePacket(_)).WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE));
    EXPECT_CALL(ring, DoWriteCriticalPacket(_)).WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE));
    EXPECT_CALL(ring, DoWriteMultiDataPacket(_, _))
        .WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE));
    PacketWriter writer(ring, kSize, WaitMode::Adaptive, Always);
    EXPECT_EQ(writer.Write(OwnedPacket(10).Get()), WriteOutcome::Stopped);
    EXPECT_EQ(writer.WriteCritical(OwnedPacket(10).Get()), WriteOutcome::Stopped);
    EXPECT_EQ(writer.WriteGathered({}, {}), WriteOutcome::Stopped);
}

TEST(PacketWriter, StopDoesNotKeepAPacketOutThatHasRoom) {
    StrictMock<MockPacketBuffer> ring;
    EXPECT_CALL(ring, DoWritePacket(_)).WillOnce(Return(SMStatusCode::SUCCESS));
    PacketWriter writer(ring, kSize, WaitMode::Adaptive, Always);
    EXPECT_EQ(writer.Write(OwnedPacket(10).Get()), WriteOutcome::Written);
}

TEST(PacketWriter, OtherRefusalsOfAnOrdinaryWriteAreFinal) {
    for (const SMStatusCode status :
         {SMStatusCode::INVALID_PARAMETER, SMStatusCode::WILL_WRAP,
          SMStatusCode::SHARED_MEMORY_FAILURE, SMStatusCode::DATA_NOT_AVAILABLE}) {
        StrictMock<MockPacketBuffer> ring;
        EXPECT_CALL(ring, DoWritePacket(_)).WillOnce(Return(status));
        PacketWriter writer(ring, kSize);
        EXPECT_EQ(writer.Write(OwnedPacket(10).Get()), WriteOutcome::Broken);
    }
}

TEST(PacketWriter, CriticalWriteTriesAgainWhenItsFillerFoundNoRoom) {
    StrictMock<MockPacketBuffer> ring;
    EXPECT_CALL(ring, DoWriteCriticalPacket(_))
        .WillOnce(Return(SMStatusCode::INVALID_PARAMETER))
        .WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE))
        .WillOnce(Return(SMStatusCode::SUCCESS));
    PacketWriter writer(ring, kSize);
    EXPECT_EQ(writer.WriteCritical(OwnedPacket(10).Get()), WriteOutcome::Written);
}

TEST(PacketWriter, CriticalWriteEndsAtAStatusThatWaitingCannotMend) {
    StrictMock<MockPacketBuffer> ring;
    EXPECT_CALL(ring, DoWriteCriticalPacket(_)).WillOnce(Return(SMStatusCode::WILL_WRAP));
    PacketWriter writer(ring, kSize);
    EXPECT_EQ(writer.WriteCritical(OwnedPacket(10).Get()), WriteOutcome::Broken);
}

TEST(PacketWriter, PacketThatCanNeverFitIsRefusedWithoutAskingTheRing) {
    StrictMock<MockPacketBuffer> ring;
    PacketWriter writer(ring, kSize);
    const OwnedPacket packet(845);
    const OwnedPacket part(423);
    EXPECT_EQ(writer.Write(packet.Get()), WriteOutcome::NeverFits);
    EXPECT_EQ(writer.WriteGathered({}, {part.Get().data, part.Get().data}),
              WriteOutcome::NeverFits);
    EXPECT_EQ(writer.WriteCritical(OwnedPacket(973).Get()), WriteOutcome::NeverFits);

    PacketWriter tiny(ring, 155);
    EXPECT_EQ(tiny.Write({}), WriteOutcome::NeverFits);
    EXPECT_EQ(tiny.WriteGathered({}, {}), WriteOutcome::NeverFits);
}

TEST(PacketWriter, GatheredPartsArriveAsOnePayload) {
    const UniqueRingName name;
    const auto producer = OpenRing({name.Name(), kSize, 0, false, 0});
    const auto sink = OpenRing({name.Name(), kSize, 1, true, 0});
    PacketWriter writer(*producer, kSize);
    const OwnedPacket front(3, 0, 'a');
    const OwnedPacket back(2, 0, 'b');
    EXPECT_EQ(writer.WriteGathered({}, {front.Get().data, back.Get().data}), WriteOutcome::Written);
    const auto read = sink->ReadNextPacket();
    ASSERT_EQ(read.packet.data.size(), 5U);
    EXPECT_EQ(std::memcmp(read.packet.data.data(), "aaabb", 5), 0);
}

/// The ring itself is asked whether the rules tell the truth: at every write position, an idle ring
/// takes each packet that fits by the rules, and no larger one.
TEST(PacketWriter, RulesAgreeWithTheRingAtEveryWritePosition) {
    constexpr std::uint64_t kSmall = 400;
    const std::uint64_t largest = LargestPayload(kSmall).value();
    for (std::size_t lead = 0; lead < 200; ++lead) {
        const UniqueRingName name;
        const auto producer = OpenRing({name.Name(), kSmall, 0, false, 0});
        const auto sink = OpenRing({name.Name(), kSmall, 1, true, 0});
        const auto drain = [&] {
            for (auto read = sink->ReadNextPacket(); read.status == SMStatusCode::SUCCESS;
                 read = sink->ReadNextPacket()) {
                EXPECT_EQ(sink->ReleasePacket(read.packet), SMStatusCode::SUCCESS);
            }
            return false;
        };
        PacketWriter writer(*producer, kSmall, WaitMode::Spin, drain);
        ASSERT_EQ(writer.Write(OwnedPacket(lead).Get()), WriteOutcome::Written);
        EXPECT_EQ(writer.Write(OwnedPacket(largest).Get()), WriteOutcome::Written) << lead;
        drain();
        EXPECT_EQ(writer.WriteCritical(OwnedPacket(374).Get()), WriteOutcome::Written) << lead;
        drain();
        EXPECT_NE(producer->WritePacket(OwnedPacket(largest + 1).Get()), SMStatusCode::SUCCESS);
    }
}

TEST(PacketWriter, WaitsForRoomToWriteInPlace) {
    const UniqueRingName name;
    const auto producer = OpenRing({name.Name(), kSize, 0, false, 0});
    const auto sink = OpenRing({name.Name(), kSize, 1, true, 0});
    const OwnedPacket first(600);
    ASSERT_EQ(producer->WritePacket(first.Get()), SMStatusCode::SUCCESS);
    int asked = 0;
    PacketWriter writer(*producer, kSize, WaitMode::Adaptive, [&] {
        const auto next = sink->ReadNextPacket();
        if (next.status == SMStatusCode::SUCCESS) {
            EXPECT_EQ(sink->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
        return ++asked == 100;
    });
    InPlaceWriter inPlace(*producer);
    ByteSpan room;
    EXPECT_EQ(writer.Reserve(inPlace, 500, room), WriteOutcome::Written);
    EXPECT_EQ(room.size(), 500U);
    EXPECT_EQ(writer.Reserve(inPlace, kSize, room), WriteOutcome::NeverFits);
    EXPECT_EQ(writer.Reserve(inPlace, 10, room), WriteOutcome::Broken) << "one is held";
    inPlace.GiveUp();
    const OwnedPacket second(600);
    ASSERT_EQ(producer->WritePacket(second.Get()), SMStatusCode::SUCCESS);
    PacketWriter stopped(*producer, kSize, WaitMode::Adaptive, Always);
    EXPECT_EQ(stopped.Reserve(inPlace, 500, room), WriteOutcome::Stopped);
    EXPECT_FALSE(inPlace.HasReservation());
}

}  // namespace
}  // namespace qel::test
