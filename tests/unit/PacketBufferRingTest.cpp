// Packets through a ring: producer, reader and sink on one segment.

#include "PacketBufferFixture.h"
#include "RingHarness.h"

namespace qel::test {
namespace {

class PacketsInRing : public RingTest {
protected:
    std::unique_ptr<SharedPacketBuffer> OpenPackets(std::uint8_t node, bool sink = false,
                                                    std::uint32_t maxFrames = 0) {
        return std::make_unique<SharedPacketBuffer>(Open(node, sink, maxFrames));
    }

    static Packet PacketOf(Bytes& data) {
        Packet packet;
        packet.header.pts = 5;
        packet.data = data;
        return packet;
    }
};
QEV_ON_EVERY_KERNEL(PacketsInRing);

TEST_P(PacketsInRing, StoredLengthIsThatOfTheData) {
    const auto source = OpenPackets(0);
    Bytes data = CountingBytes(20, 1);
    Packet packet = PacketOf(data);
    packet.header.length = 999;
    EXPECT_EQ(SMStatusCode::SUCCESS, source->WritePacket(packet));
    EXPECT_EQ(HeaderBytes(20, 0, 5, 0, 0, 0), DataAt(0, 26));
    EXPECT_EQ(data, DataAt(26, 20));
}

TEST_P(PacketsInRing, PacketIsReadInPlace) {
    const auto source = OpenPackets(0);
    const auto sink = OpenPackets(1, true);
    Bytes data = CountingBytes(20, 1);
    EXPECT_EQ(SMStatusCode::SUCCESS, source->WritePacket(PacketOf(data)));
    const ReadNextPacketResult result = sink->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(26U, result.index);
    EXPECT_EQ(5, Copied(result.packet.header.pts));
    EXPECT_EQ(data, BytesIn(result.packet.data));
    Data()[26] = 99;
    EXPECT_EQ(99, result.packet.data[0]);
    EXPECT_EQ(99, sink->ReadData(result.index, 1).data[0]);
}

TEST_P(PacketsInRing, EmptyPacketIsABareHeader) {
    const auto source = OpenPackets(0);
    const auto sink = OpenPackets(1, true);
    Bytes none;
    EXPECT_EQ(SMStatusCode::SUCCESS, source->WritePacket(PacketOf(none)));
    EXPECT_EQ(26U, Control().avail[1]);
    const ReadNextPacketResult result = sink->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(0U, Copied(result.packet.header.length));
    EXPECT_EQ(0U, result.packet.data.size());
    EXPECT_EQ(SMStatusCode::SUCCESS, sink->ReleasePacket(result.packet));
    EXPECT_EQ(kSize, Control().avail[0]);
}

TEST_P(PacketsInRing, EmptyRingHasNoPacket) {
    const auto sink = OpenPackets(1, true);
    const ReadNextPacketResult result = sink->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, result.status);
    EXPECT_EQ(0U, result.index);
    EXPECT_EQ(0U, Copied(result.packet.header.length));
    EXPECT_EQ(0U, result.packet.data.size());
}

TEST_P(PacketsInRing, GatheredSpansArriveAsOnePayload) {
    const auto source = OpenPackets(0);
    const auto sink = OpenPackets(1, true);
    Bytes three = CountingBytes(3, 10);
    Bytes none;
    Bytes five = CountingBytes(5, 13);
    EXPECT_EQ(SMStatusCode::SUCCESS,
              source->WriteMultiDataPacket(PacketOf(header_), {three, none, five}));
    const ReadNextPacketResult result = sink->ReadNextPacket();
    EXPECT_EQ(8U, Copied(result.packet.header.length));
    EXPECT_EQ(CountingBytes(8, 10), BytesIn(result.packet.data));
    EXPECT_EQ(SMStatusCode::DATA_NOT_AVAILABLE, sink->ReadNextPacket().status);
}

TEST_P(PacketsInRing, PacketThatDoesNotFitBeforeTheEndComesBehindAFiller) {
    const auto source = OpenPackets(0, false, 4);
    const auto sink = OpenPackets(1, true);
    Control().wIdx[0] = kSize - 100;
    Control().rIdx[1] = kSize - 100;
    Bytes data = CountingBytes(200, 1);
    EXPECT_EQ(SMStatusCode::SUCCESS, source->WritePacket(PacketOf(data)));
    EXPECT_EQ(2U, Control().numPackets);
    EXPECT_EQ(HeaderBytes(74, 1, 0, 0, 0, 0), DataAt(kSize - 100, 26));

    const ReadNextPacketResult filler = sink->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::SUCCESS, filler.status);
    EXPECT_TRUE(filler.packet.header.ignoreData);
    EXPECT_EQ(74U, Copied(filler.packet.header.length));
    EXPECT_EQ(kSize - 74, filler.index);
    EXPECT_EQ(SMStatusCode::SUCCESS, sink->ReleasePacket(filler.packet));

    const ReadNextPacketResult packet = sink->ReadNextPacket();
    EXPECT_EQ(26U, packet.index);
    EXPECT_FALSE(packet.packet.header.ignoreData);
    EXPECT_EQ(data, BytesIn(packet.packet.data));
    EXPECT_EQ(SMStatusCode::SUCCESS, sink->ReleasePacket(packet.packet));
    EXPECT_EQ(kSize, Control().avail[0]);
    EXPECT_EQ(0U, Control().numPackets);
}

TEST_P(PacketsInRing, PacketLongerThanTheRingLeavesItsFillerAndIsInvalid) {
    const auto source = OpenPackets(0);
    Control().wIdx[0] = kSize - 100;
    Control().avail[0] = 4 * kSize;  // forged: an honest counter refuses such a packet at once
    Bytes data(2 * kSize);
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, source->WritePacket(PacketOf(data)));
    EXPECT_EQ(0U, Control().wIdx[0]);
    EXPECT_EQ(100U, Control().avail[1]);
    EXPECT_EQ(HeaderBytes(74, 1, 0, 0, 0, 0), DataAt(kSize - 100, 26));
}

TEST_P(PacketsInRing, RetryThatFindsNoSpaceBehindTheFillerSaysSo) {
    const auto source = OpenPackets(0);
    Control().wIdx[0] = kSize - 100;
    Bytes data(200);
    Control().avail[0] = 226 + kReserve + 99;
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, source->WritePacket(PacketOf(data)));
    EXPECT_EQ(0U, Control().wIdx[0]);
    EXPECT_EQ(100U, Control().avail[1]);
    Control().avail[0] = 226 + kReserve;
    EXPECT_EQ(SMStatusCode::SUCCESS, source->WritePacket(PacketOf(data)));
}

TEST_P(PacketsInRing, CriticalPacketWhoseFillerFindsNoRoomIsInvalidAndNothingIsWritten) {
    const auto source = OpenPackets(0);
    Control().wIdx[0] = kSize - 100;
    Control().avail[0] = 99;
    Bytes data(73);  // ends one byte before the end
    const Bytes before = Snapshot();
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, source->WriteCriticalPacket(PacketOf(data)));
    EXPECT_EQ(before, Snapshot());
}

TEST_P(PacketsInRing, CriticalPacketUsesTheReserve) {
    const auto source = OpenPackets(0);
    Control().avail[0] = 46;
    Bytes data(20);
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, source->WritePacket(PacketOf(data)));
    EXPECT_EQ(SMStatusCode::NOT_ENOUGH_SPACE, source->WriteMultiDataPacket({}, {data}));
    EXPECT_EQ(SMStatusCode::SUCCESS, source->WriteCriticalPacket(PacketOf(data)));
}

TEST_P(PacketsInRing, PacketsReleasedTogetherCountAsOne) {
    const auto source = OpenPackets(0, false, 9);
    const auto sink = OpenPackets(1, true);
    std::vector<Packet> packets;
    for (const std::size_t size : {10U, 20U, 30U}) {
        Bytes data(size);
        EXPECT_EQ(SMStatusCode::SUCCESS, source->WritePacket(PacketOf(data)));
        packets.push_back(sink->ReadNextPacket().packet);
    }
    EXPECT_EQ(kSize - 138, Control().avail[0]);
    EXPECT_EQ(SMStatusCode::SUCCESS, sink->ReleasePackets(packets));
    EXPECT_EQ(kSize, Control().avail[0]);
    EXPECT_EQ(2U, Control().numPackets);
    EXPECT_EQ(SMStatusCode::SUCCESS, sink->ReleasePackets({}));
    EXPECT_EQ(1U, sink->GetCurrentCapacity().numPackets);
}

TEST_P(PacketsInRing, HeaderWithoutItsPayloadIsAnInconsistentRing) {
    const auto sink = OpenPackets(1, true);
    const Bytes header = HeaderBytes(50, 0, 0, 0, 0, 0);
    std::copy(header.begin(), header.end(), Data());
    Control().avail[1] = 75;
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, sink->ReadNextPacket().status);
    EXPECT_EQ(75U, Control().avail[1]);
}

TEST_P(PacketsInRing, ForgedLengthThatOverflowsIsInvalid) {
    const auto sink = OpenPackets(1, true);
    const Bytes header = HeaderBytes(~std::uint64_t{0}, 0, 0, 0, 0, 0);
    std::copy(header.begin(), header.end(), Data());
    Control().avail[1] = 100;
    const ReadNextPacketResult result = sink->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::INVALID_PARAMETER, result.status);
    EXPECT_EQ(0U, result.index);
    EXPECT_EQ(0U, Copied(result.packet.header.length));
}

TEST_P(PacketsInRing, ForgedReadIndexCutsTheHeaderShort) {
    const auto sink = OpenPackets(1, true);
    Data()[kSize - 1] = 3;  // the first byte of a length, the rest of which is not there
    Control().rIdx[1] = kSize - 1;
    Control().avail[1] = 29;
    const ReadNextPacketResult result = sink->ReadNextPacket();
    EXPECT_EQ(SMStatusCode::SUCCESS, result.status);
    EXPECT_EQ(3U, Copied(result.packet.header.length));
    EXPECT_EQ(3U, result.packet.data.size());
}

}  // namespace
}  // namespace qel::test
