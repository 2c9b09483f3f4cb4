#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "ControlBlock.h"
#include "InPlaceWriter.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"
#include "SysFactory.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 2000;
constexpr std::uint64_t kReserve = 5 * kPacketHeaderSize;

/// Both ends of a ring.
class Ring {
public:
    explicit Ring(std::uint32_t maxFrames = 0) : maxFrames_(maxFrames) {}

    SMStatusCode Write(std::vector<unsigned char> bytes) {
        Packet packet;
        packet.header = HeaderOf(bytes);
        packet.data = bytes;
        return writer.WritePacket(packet);
    }

    /// As Write, by way of a reservation of `more` bytes than are used.
    SMStatusCode WriteInPlace(const std::vector<unsigned char>& bytes, std::uint64_t more = 0) {
        const ReadResult room = inPlace.Reserve(bytes.size() + more);
        if (room.status != SMStatusCode::SUCCESS) {
            return room.status;
        }
        EXPECT_EQ(room.data.size(), bytes.size() + more);
        std::copy(bytes.begin(), bytes.end(), room.data.begin());
        return inPlace.Commit(HeaderOf(bytes), bytes.size());
    }

    /// The next packet of content; fillers are released.
    std::vector<unsigned char> Read() {
        while (true) {
            const auto next = reader.ReadNextPacket();
            EXPECT_EQ(next.status, SMStatusCode::SUCCESS);
            std::vector<unsigned char> bytes(next.packet.data.begin(), next.packet.data.end());
            const std::int64_t pts = next.packet.header.pts;
            const bool isFiller = next.packet.header.ignoreData;
            EXPECT_EQ(reader.ReleasePacket(next.packet), SMStatusCode::SUCCESS);
            if (!isFiller || next.status != SMStatusCode::SUCCESS) {
                const std::int64_t expected = HeaderOf(bytes).pts;
                EXPECT_EQ(pts, expected);
                return bytes;
            }
        }
    }

    /// All bytes of the object.
    [[nodiscard]] std::string Image() const {
        std::ifstream file(name_.Path(), std::ios::binary);
        std::ostringstream image;
        image << file.rdbuf();
        return image.str();
    }
    [[nodiscard]] std::uint64_t WriteIndex() const {
        std::uint64_t index = 0;
        std::memcpy(&index, Image().data() + offsetof(ControlBlock, wIdx), sizeof index);
        return index;
    }

    void ForgeWriteIndex(std::uint64_t index) const {
        std::fstream file(name_.Path(), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(offsetof(ControlBlock, wIdx));
        file.write(reinterpret_cast<const char*>(&index), sizeof index);
        EXPECT_TRUE(file.flush().good());
    }

private:
    static PacketHeader HeaderOf(const std::vector<unsigned char>& bytes) {
        PacketHeader header;
        header.length = 99999;  // not used
        header.pts = static_cast<std::int64_t>(bytes.size()) + 1;
        header.key = true;
        return header;
    }
    [[nodiscard]] std::unique_ptr<SharedBufferIF> Open(std::uint8_t node, bool sink) const {
        return std::make_unique<SharedBuffer>(
            SysFactory::Create(""),
            SharedBufferIF::BufferInfo{name_.Name(), kSize, node, sink, maxFrames_});
    }

    UniqueRingName name_;
    std::uint32_t maxFrames_;

public:
    SharedPacketBuffer writer{Open(0, false)};
    SharedPacketBuffer reader{Open(1, true)};
    InPlaceWriter inPlace{writer};
};

std::vector<unsigned char> Bytes(std::size_t count, unsigned seed = 0) {
    std::vector<unsigned char> bytes(count);
    std::generate(bytes.begin(), bytes.end(),
                  [&seed] { return static_cast<unsigned char>(seed++ * 7); });
    return bytes;
}

TEST(InPlaceWriter, DeliversWhatWasPutIntoTheReservation) {
    Ring ring;
    EXPECT_EQ(ring.WriteInPlace(Bytes(100)), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring.WriteInPlace(Bytes(30), 500), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring.WriteInPlace({}, 10), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring.Write(Bytes(7)), SMStatusCode::SUCCESS);
    for (const std::size_t length : {100U, 30U, 0U, 7U}) {
        EXPECT_EQ(ring.Read(), Bytes(length));
    }
}

TEST(InPlaceWriter, ReservationPutsTheHeadOfAFillerAtTheWriteIndexAndChangesNothingElse) {
    Ring ring;
    EXPECT_EQ(ring.Write(Bytes(10)), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring.Read(), Bytes(10));
    PacketHeader head;
    head.ignoreData = true;
    head.length = 100;
    std::string expected = ring.Image();
    std::memcpy(expected.data() + sizeof(ControlBlock) + ring.WriteIndex(), &head, sizeof head);
    EXPECT_FALSE(ring.inPlace.HasReservation());
    EXPECT_EQ(ring.inPlace.Reserve(100).status, SMStatusCode::SUCCESS);
    EXPECT_TRUE(ring.inPlace.HasReservation());
    EXPECT_TRUE(ring.Image() == expected);
    EXPECT_EQ(ring.reader.ReadNextPacket().status, SMStatusCode::DATA_NOT_AVAILABLE);
    ring.inPlace.GiveUp();
    ring.inPlace.GiveUp();
    EXPECT_FALSE(ring.inPlace.HasReservation());
    EXPECT_TRUE(ring.Image() == expected);
    EXPECT_EQ(ring.Write(Bytes(5)), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring.Read(), Bytes(5));
}

TEST(InPlaceWriter, HoldsOneReservationAtATime) {
    Ring ring;
    const ReadResult first = ring.inPlace.Reserve(4);
    const ReadResult second = ring.inPlace.Reserve(4);
    EXPECT_EQ(second.status, SMStatusCode::INVALID_PARAMETER);
    EXPECT_TRUE(second.data.empty());
    std::fill(first.data.begin(), first.data.end(), 9);
    EXPECT_EQ(ring.inPlace.Commit({}, 5), SMStatusCode::INVALID_PARAMETER) << "more than reserved";
    EXPECT_TRUE(ring.inPlace.HasReservation());
    PacketHeader header;
    header.pts = 5;
    EXPECT_EQ(ring.inPlace.Commit(header, 4), SMStatusCode::SUCCESS);
    EXPECT_FALSE(ring.inPlace.HasReservation());
    EXPECT_EQ(ring.inPlace.Commit(header, 0), SMStatusCode::INVALID_PARAMETER);
    EXPECT_EQ(ring.Read(), std::vector<unsigned char>(4, 9));
}

TEST(InPlaceWriter, RefusesToHandOnWhatAnotherWriteOfTheNodeHasOverwritten) {
    Ring ring;
    ASSERT_EQ(ring.inPlace.Reserve(100).status, SMStatusCode::SUCCESS);
    ASSERT_EQ(ring.Write(Bytes(50)), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring.inPlace.Commit({}, 100), SMStatusCode::INVALID_PARAMETER);
    EXPECT_FALSE(ring.inPlace.HasReservation());
    EXPECT_EQ(ring.Read(), Bytes(50));
    EXPECT_EQ(ring.reader.ReadNextPacket().status, SMStatusCode::DATA_NOT_AVAILABLE);
}

TEST(InPlaceWriter, LeavesTheRoomThatOrdinaryWritesLeave) {
    for (const std::uint64_t more : {0U, 1U}) {
        Ring ring;
        ASSERT_EQ(ring.Write(Bytes(1000)), SMStatusCode::SUCCESS);
        const std::uint64_t most = kSize - 1000 - 2 * kPacketHeaderSize - kReserve;
        EXPECT_EQ(ring.WriteInPlace(Bytes(most + more)),
                  more == 0 ? SMStatusCode::SUCCESS : SMStatusCode::NOT_ENOUGH_SPACE);
    }
}

TEST(InPlaceWriter, KeepsThePacketLimit) {
    Ring ring(2);  // three packets
    for (int packet = 0; packet < 3; ++packet) {
        EXPECT_EQ(ring.WriteInPlace(Bytes(10)), SMStatusCode::SUCCESS);
    }
    EXPECT_EQ(ring.inPlace.Reserve(10).status, SMStatusCode::NOT_ENOUGH_SPACE);
    (void)ring.Read();
    EXPECT_EQ(ring.WriteInPlace(Bytes(10)), SMStatusCode::SUCCESS);
}

TEST(InPlaceWriter, WantsRoomForAFillerInThePacketLimitToo) {
    Ring ring(1);  // two packets
    ASSERT_EQ(ring.Write(Bytes(1500)), SMStatusCode::SUCCESS);
    (void)ring.Read();
    ASSERT_EQ(ring.Write(Bytes(100)), SMStatusCode::SUCCESS);
    const std::string before = ring.Image();
    EXPECT_EQ(ring.inPlace.Reserve(500).status, SMStatusCode::NOT_ENOUGH_SPACE);
    EXPECT_TRUE(ring.Image() == before);
}

TEST(InPlaceWriter, NeverTakesWhatTheRingCannotHold) {
    Ring ring;
    for (const std::uint64_t size :
         {kSize - 2 * kPacketHeaderSize + 1, kSize, kSize + 1, ~std::uint64_t{0}}) {
        EXPECT_EQ(ring.inPlace.Reserve(size).status, SMStatusCode::INVALID_PARAMETER) << size;
    }
    EXPECT_EQ(ring.inPlace.Reserve(kSize - 2 * kPacketHeaderSize).status,
              SMStatusCode::NOT_ENOUGH_SPACE);
}

TEST(InPlaceWriter, ShorterPacketAlwaysLeavesRoomForAHeaderBehindIt) {
    for (std::uint64_t used = 0; used <= 300; ++used) {
        Ring ring;
        ASSERT_EQ(ring.Write(Bytes(kSize - 2 * kPacketHeaderSize - 300 - kReserve)),
                  SMStatusCode::SUCCESS);
        (void)ring.Read();
        const std::uint64_t toEnd = kSize - ring.WriteIndex() - kPacketHeaderSize;
        ASSERT_EQ(ring.WriteInPlace(Bytes(used), toEnd - used), SMStatusCode::SUCCESS) << used;
        EXPECT_EQ(ring.Read(), Bytes(used));
        EXPECT_EQ(ring.Write(Bytes(9)), SMStatusCode::SUCCESS);
        EXPECT_EQ(ring.Read(), Bytes(9));
    }
}

/// The same packets in two rings, in place in the one and copied into the other.
TEST(InPlaceWriter, LeavesTheRingToTheByteAsAnOrdinaryWriteDoes) {
    std::mt19937 random(1);
    for (const std::uint32_t maxFrames : {0U, 4U}) {
        Ring copied(maxFrames);
        Ring inPlace(maxFrames);
        std::uint64_t waiting = 0;
        for (unsigned step = 0; step < 20'000; ++step) {
            if (waiting > 0 && random() % 2 == 0) {
                ASSERT_EQ(copied.Read(), inPlace.Read());
                --waiting;
                continue;
            }
            const auto bytes = Bytes(random() % 700, step);
            const bool endsAtEnd = copied.WriteIndex() + kPacketHeaderSize + bytes.size() == kSize;
            const SMStatusCode status = copied.Write(bytes);
            ASSERT_EQ(endsAtEnd ? inPlace.Write(bytes) : inPlace.WriteInPlace(bytes), status);
            waiting += status == SMStatusCode::SUCCESS ? 1 : 0;
            ASSERT_TRUE(copied.Image() == inPlace.Image()) << "step " << step;
        }
    }
}

TEST(InPlaceWriter, RefusesWhereTheWriteIndexIsForged) {
    for (const std::uint64_t index : {kSize + 1, ~std::uint64_t{0}, kSize - 10}) {
        Ring ring;
        ring.ForgeWriteIndex(index);
        const std::string before = ring.Image();
        EXPECT_EQ(ring.inPlace.Reserve(100).status, SMStatusCode::INVALID_PARAMETER) << index;
        EXPECT_TRUE(ring.Image() == before);
    }
}

/// As if the write index were forged while the room is looked up: the view is cut short.
class RingWithAForger : public SharedBuffer {
public:
    using SharedBuffer::SharedBuffer;

private:
    ReadResult DoReadData(std::uint64_t, std::uint64_t) override {
        return {ByteSpan(), SMStatusCode::SUCCESS};
    }
};

TEST(InPlaceWriter, RefusesARoomThatIsCutShort) {
    const UniqueRingName name;
    SharedPacketBuffer buffer(std::make_unique<RingWithAForger>(
        SysFactory::Create(""), SharedBufferIF::BufferInfo{name.Name(), kSize, 0, false, 0}));
    InPlaceWriter writer(buffer);
    EXPECT_EQ(writer.Reserve(100).status, SMStatusCode::INVALID_PARAMETER);
    EXPECT_FALSE(writer.HasReservation());
}

class SubstituteRing : public SharedBufferIF {
    SMStatusCode DoReleaseData(std::uint64_t, std::uint32_t) override { return {}; }
    WriteResult DoWriteHeaderPayload(const ByteSpan&, const ByteSpan&, bool) override { return {}; }
    WriteResult DoWriteHeaderMultiData(const ByteSpan&, const std::vector<ByteSpan>&, std::uint64_t,
                                       bool) override {
        return {};
    }
    WriteResult DoWriteHeaderSkipPayload(const ByteSpan&, std::uint64_t) override { return {}; }
    ReadResult DoReadData(std::uint64_t, std::uint64_t) override { return {}; }
    ReadResult DoReadHeader(std::uint64_t) override { return {}; }
    PayloadResult DoReadPayload(std::uint64_t) override { return {}; }
    void DoPrint(LogLevel) override {}
    Capacity DoGetCurrentCapacity() override { return {}; }
};

class SubstituteBuffer : public SharedPacketBufferIF {
    SMStatusCode DoReleasePacket(const Packet&) override { return SMStatusCode::SUCCESS; }
    SMStatusCode DoReleasePackets(std::vector<Packet>) override { return SMStatusCode::SUCCESS; }
    SMStatusCode DoWritePacket(const Packet&) override { return SMStatusCode::SUCCESS; }
    SMStatusCode DoWriteCriticalPacket(const Packet&) override { return SMStatusCode::SUCCESS; }
    SMStatusCode DoWriteMultiDataPacket(const Packet&, const std::vector<ByteSpan>&) override {
        return SMStatusCode::SUCCESS;
    }
    ReadNextPacketResult DoReadNextPacket() override { return {}; }
    void DoPrint(LogLevel) override {}
    Capacity DoGetCurrentCapacity() override { return {}; }
    ReadResult DoReadData(unsigned long, unsigned long) override { return {}; }
};

TEST(InPlaceWriter, TakesOnlyBuffersThatTheLibraryHasMade) {
    SubstituteBuffer substitute;
    EXPECT_THROW(InPlaceWriter{substitute}, std::invalid_argument);
    SharedPacketBuffer overSubstitute(std::make_unique<SubstituteRing>());
    EXPECT_THROW(InPlaceWriter{overSubstitute}, std::invalid_argument);
}

}  // namespace
}  // namespace qel::test
