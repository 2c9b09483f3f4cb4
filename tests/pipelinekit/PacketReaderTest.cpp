#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "EndOfStream.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::_;
using testing::InSequence;
using testing::Return;
using testing::StrictMock;

constexpr std::uint64_t kSize = 1000;

const ReadNextPacketResult kNothing{{}, 0, SMStatusCode::DATA_NOT_AVAILABLE};

ReadNextPacketResult Found(const Packet& packet) {
    return {packet, 0, SMStatusCode::SUCCESS};
}

Packet Filler() {
    Packet filler;
    filler.header.ignoreData = true;
    return filler;
}

TEST(PacketReader, WaitsUntilAPacketIsThere) {
    StrictMock<MockPacketBuffer> ring;
    const OwnedPacket packet(5, 9);
    EXPECT_CALL(ring, DoReadNextPacket())
        .WillOnce(Return(kNothing))
        .WillOnce(Return(kNothing))
        .WillOnce(Return(Found(packet.Get())));
    PacketReader reader(ring);
    const ReceivedPacket received = reader.Next();
    EXPECT_EQ(received.outcome, ReadOutcome::Packet);
    EXPECT_EQ(received.packet.data.data(), packet.Get().data.data());
}

TEST(PacketReader, StopEndsTheWaitAndReadsNothingMore) {
    StrictMock<MockPacketBuffer> ring;
    EXPECT_CALL(ring, DoReadNextPacket()).Times(3).WillRepeatedly(Return(kNothing));
    int asked = 0;
    PacketReader reader(ring, WaitMode::Adaptive, [&] { return ++asked > 3; });
    EXPECT_EQ(reader.Next().outcome, ReadOutcome::Stopped);
}

TEST(PacketReader, OtherStatusesMeanABrokenRing) {
    for (const SMStatusCode status :
         {SMStatusCode::INVALID_PARAMETER, SMStatusCode::SHARED_MEMORY_FAILURE}) {
        StrictMock<MockPacketBuffer> ring;
        EXPECT_CALL(ring, DoReadNextPacket()).WillOnce(Return(ReadNextPacketResult{{}, 0, status}));
        PacketReader reader(ring);
        EXPECT_EQ(reader.Next().outcome, ReadOutcome::Broken);
    }
}

TEST(PacketReader, FillerIsReleasedSilently) {
    const InSequence inSequence;
    StrictMock<MockPacketBuffer> ring;
    const OwnedPacket packet(5);
    EXPECT_CALL(ring, DoReadNextPacket()).WillOnce(Return(Found(Filler())));
    EXPECT_CALL(ring, DoReleasePacket(_)).WillOnce(Return(SMStatusCode::SUCCESS));
    EXPECT_CALL(ring, DoReadNextPacket()).WillOnce(Return(Found(packet.Get())));
    PacketReader reader(ring);
    EXPECT_EQ(reader.Next().outcome, ReadOutcome::Packet);
    EXPECT_EQ(reader.Fillers(), 1U);
}

TEST(PacketReader, FillerDoesNotGoBackBeforeAnOlderPacketIsFinished) {
    StrictMock<MockPacketBuffer> ring;
    const OwnedPacket older(5);
    const OwnedPacket newer(7);
    EXPECT_CALL(ring, DoReadNextPacket())
        .WillOnce(Return(Found(older.Get())))
        .WillOnce(Return(Found(Filler())))
        .WillOnce(Return(Found(newer.Get())));
    PacketReader reader(ring);
    const ReceivedPacket first = reader.Next();
    (void)reader.Next();
    EXPECT_EQ(reader.GetOutstanding().packets, 3U);
    EXPECT_EQ(reader.GetOutstanding().bytes, 3 * 26U + 12U);
    EXPECT_CALL(ring, DoReleasePacket(_)).Times(2).WillRepeatedly(Return(SMStatusCode::SUCCESS));
    EXPECT_EQ(reader.Release(first.ticket), SMStatusCode::SUCCESS);
    EXPECT_EQ(reader.GetOutstanding().packets, 1U);
}

TEST(PacketReader, SpaceFinishedElsewhereGoesBackWhileItWaits) {
    StrictMock<MockPacketBuffer> ring;
    const OwnedPacket packet(5);
    InOrderRelease::Ticket ticket = 0;
    PacketReader reader(ring);
    EXPECT_CALL(ring, DoReadNextPacket()).WillOnce(Return(Found(packet.Get())));
    ticket = reader.Next().ticket;

    const InSequence inSequence;
    EXPECT_CALL(ring, DoReadNextPacket()).WillOnce([&] {
        EXPECT_TRUE(reader.Finish(ticket));
        return kNothing;
    });
    EXPECT_CALL(ring, DoReleasePacket(_)).WillOnce(Return(SMStatusCode::SUCCESS));
    EXPECT_CALL(ring, DoReadNextPacket()).WillOnce(Return(Found(packet.Get())));
    EXPECT_EQ(reader.Next().outcome, ReadOutcome::Packet);
}

TEST(PacketReader, ReleaseThatTheRingRefusesMeansABrokenRing) {
    StrictMock<MockPacketBuffer> ring;
    const OwnedPacket packet(5);
    EXPECT_CALL(ring, DoReadNextPacket()).WillRepeatedly(Return(Found(packet.Get())));
    EXPECT_CALL(ring, DoReleasePacket(_)).WillRepeatedly(Return(SMStatusCode::INVALID_PARAMETER));
    PacketReader reader(ring);
    EXPECT_EQ(reader.Release(reader.Next().ticket), SMStatusCode::INVALID_PARAMETER);
    EXPECT_TRUE(reader.Finish(reader.Next().ticket));
    EXPECT_EQ(reader.Next().outcome, ReadOutcome::Broken);
}

TEST(PacketReader, EndMarkPassesThroughTheChainLikeAPacket) {
    const UniqueRingName name;
    const auto producer = OpenRing({name.Name(), kSize, 0, false, 0});
    const auto middle = OpenRing({name.Name(), kSize, 1, false, 0});
    const auto sink = OpenRing({name.Name(), kSize, 2, true, 0});
    ASSERT_EQ(producer->WriteCriticalPacket(MakeEndOfStream()), SMStatusCode::SUCCESS);
    for (SharedPacketBufferIF* const node : {middle.get(), sink.get()}) {
        PacketReader reader(*node);
        const ReceivedPacket received = reader.Next();
        EXPECT_EQ(received.outcome, ReadOutcome::EndOfStream);
        EXPECT_EQ(reader.Release(received.ticket), SMStatusCode::SUCCESS);
    }
}

}  // namespace
}  // namespace qel::test
