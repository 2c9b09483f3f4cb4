// A ring's object that another process makes shorter or longer while it is mapped.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "Attempts.h"
#include "ControlBlock.h"
#include "Fate.h"
#include "RingObject.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 1U << 16U;
constexpr std::uint64_t kLength = kSize + sizeof(ControlBlock);
constexpr std::size_t kPayload = 10000;
constexpr std::uint64_t kRecord = kPacketHeaderSize + kPayload;
constexpr int kWritten = 4;
const off_t kPage = ::sysconf(_SC_PAGESIZE);

class AShrunkRing : public testing::Test {
protected:
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node,
                                                             std::uint64_t size = kSize) const {
        return SharedMemLibFactory::Create()
            ->GetSharedPacketBuffer({name_.Name(), size, node, node == 1})
            .buffer;
    }
    static SMStatusCode Write(SharedPacketBufferIF& ring, std::size_t length = kPayload) {
        std::vector<unsigned char> bytes(length, 'x');
        Packet packet;
        packet.data = {bytes.data(), bytes.size()};
        return ring.WritePacket(packet);
    }
    static void Write4(SharedPacketBufferIF& ring) {
        for (int i = 0; i < kWritten; ++i) {
            ASSERT_EQ(Write(ring), SMStatusCode::SUCCESS);
        }
    }
    /// Length of the payload that is read next, -1 if there is none.
    static long Read(SharedPacketBufferIF& ring) {
        const auto read = ring.ReadNextPacket();
        if (read.status != SMStatusCode::SUCCESS) {
            return -1;
        }
        EXPECT_EQ(ring.ReleasePacket(read.packet), SMStatusCode::SUCCESS);
        return static_cast<long>(read.packet.data.size());
    }
    void Cut(off_t length) const { ASSERT_EQ(::truncate(name_.Path().c_str(), length), 0); }
    [[nodiscard]] off_t Length() const {
        struct stat status {};
        return ::stat(name_.Path().c_str(), &status) == 0 ? status.st_size : -1;
    }
    /// What becomes of a process that does `act` with `ring`.
    template <typename Act>
    static std::string FateWith(SharedPacketBufferIF& ring, Act act) {
        return FateOf([&] {
            act(ring);
            return std::string("lives");
        });
    }

    const UniqueRingName name_;
};

void WriteOne(SharedPacketBufferIF& ring) {
    std::vector<unsigned char> bytes(10);
    Packet packet;
    packet.data = {bytes.data(), bytes.size()};
    (void)ring.WritePacket(packet);
}
void ReadOne(SharedPacketBufferIF& ring) {
    (void)ring.ReadNextPacket();
}
void AskCapacity(SharedPacketBufferIF& ring) {
    (void)ring.GetCurrentCapacity();
}

const std::string kKilled = "killed by Bus error";

TEST_F(AShrunkRing, OfLengthNothingKillsWhoeverTouchesIt) {
    const auto writer = Open(0);
    const auto reader = Open(1);
    Cut(0);
    EXPECT_EQ(FateWith(*writer, WriteOne), kKilled);
    EXPECT_EQ(FateWith(*writer, AskCapacity), kKilled);
    EXPECT_EQ(FateWith(*reader, ReadOne), kKilled);
}

TEST_F(AShrunkRing, OfLengthNothingIsFreshForTheNextOpenerAndForAllWhoMapIt) {
    const auto writer = Open(0);
    const auto reader = Open(1);
    Write4(*writer);
    Cut(0);
    const auto next = Open(1);
    EXPECT_EQ(Length(), static_cast<off_t>(kLength));

    EXPECT_EQ(Read(*reader), -1);  // what had been written is gone, and nobody dies
    EXPECT_EQ(Write(*writer, 5000), SMStatusCode::SUCCESS);
    EXPECT_EQ(Read(*next), 5000);
    EXPECT_EQ(Read(*reader), -1);
}

TEST_F(AShrunkRing, CutInTheMiddleKillsOnlyWhoeverTouchesWhatIsMissing) {
    const auto writer = Open(0);
    const auto reader = Open(1);
    Write4(*writer);
    Cut(kPage);  // the control block and a part of the first packet are left
    EXPECT_EQ(FateWith(*writer, AskCapacity), "lives");
    EXPECT_EQ(FateWith(*writer, WriteOne), kKilled);
    EXPECT_EQ(FateWith(*reader,
                       [](SharedPacketBufferIF& ring) {
                           const auto read = ring.ReadNextPacket();
                           unsigned sum = 0;
                           for (const unsigned char byte : read.packet.data) {
                               sum += byte;
                           }
                           std::fprintf(stderr, "read %u\n", sum);
                       }),
              kKilled);
}

// The counters still tell of four packets, of which all but the first one's beginning is zeros now:
// headers of nothing but zeros, each of which is a packet without a payload.
TEST_F(AShrunkRing, CutInTheMiddleHoldsZerosForTheNextOpener) {
    const auto writer = Open(0);
    Write4(*writer);
    Cut(kPage);
    const auto next = Open(1);
    EXPECT_EQ(Length(), static_cast<off_t>(kLength));

    const auto first = next->ReadNextPacket();
    ASSERT_EQ(first.packet.data.size(), kPayload);
    EXPECT_EQ(first.packet.data[0], 'x');
    EXPECT_EQ(first.packet.data[kPayload - 1], 0);
    EXPECT_EQ(next->ReleasePacket(first.packet), SMStatusCode::SUCCESS);
    std::uint64_t empty = 0;
    while (Read(*next) == 0) {
        ++empty;
    }
    EXPECT_EQ(empty, (kWritten - 1) * kRecord / kPacketHeaderSize);
}

TEST_F(AShrunkRing, IsRefusedByPipelineKitUntilItIsRemoved) {
    (void)Open(0);
    Cut(kPage);
    EXPECT_EQ(TryOpenRing(name_.Name(), kSize),
              "ring " + name_.Name() + " exists with a size of " +
                  std::to_string(kPage - static_cast<off_t>(sizeof(ControlBlock))) +
                  " bytes, not " + std::to_string(kSize));
    RingObject::Unlink(name_.Name());
    EXPECT_EQ(TryOpenRing(name_.Name(), kSize), "works");
}

TEST_F(AShrunkRing, IsWhatAnOpenerWithASmallerSizeMakesUnderTheFirst) {
    const auto writer = Open(0);
    Write4(*writer);
    const auto second = Open(1, kSize / 4);
    EXPECT_EQ(Length(), static_cast<off_t>(kSize / 4 + sizeof(ControlBlock)));
    EXPECT_EQ(FateWith(*writer, [](SharedPacketBufferIF& ring) { WriteOne(ring); }), kKilled);
    // To the second, the counter tells of more than its ring can hold.
    EXPECT_EQ(FateWith(*second, ReadOne), "lives");
}

TEST_F(AShrunkRing, IsSparedAnOpenerWithASmallerSizeByPipelineKit) {
    const auto writer = Open(0);
    Write4(*writer);
    EXPECT_EQ(TryOpenRing(name_.Name(), kSize / 4),
              "ring " + name_.Name() + " exists with a size of " + std::to_string(kSize) +
                  " bytes, not " + std::to_string(kSize / 4));
    EXPECT_EQ(Length(), static_cast<off_t>(kLength));
    EXPECT_EQ(FateWith(*writer, WriteOne), "lives");
}

// Each goes round its own ring: they agree until the first of them turns back to the start.
TEST_F(AShrunkRing, HasACounterpartInALargerOneWhoseNodesPartAtTheEnd) {
    const auto writer = Open(0);
    const auto reader = Open(1, 2 * kSize);
    EXPECT_EQ(Length(), static_cast<off_t>(2 * kSize + sizeof(ControlBlock)));
    int whole = 0;
    for (int packet = 0; packet < 2 * kWritten; ++packet) {
        const SMStatusCode written = Write(*writer);
        const auto read = reader->ReadNextPacket();
        if (written != SMStatusCode::SUCCESS || read.status != SMStatusCode::SUCCESS ||
            read.packet.data.size() != kPayload) {
            break;
        }
        (void)reader->ReleasePacket(read.packet);
        ++whole;
    }
    EXPECT_EQ(whole, static_cast<int>(kSize / kRecord));
    EXPECT_EQ(FateWith(*writer, WriteOne), "lives");
}

}  // namespace
}  // namespace qel::test
