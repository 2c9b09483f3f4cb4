#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "PacketFileReader.h"
#include "PacketFileWriter.h"
#include "TapPace.h"
#include "Thrown.h"

namespace qel::test {
namespace {

using testing::HasSubstr;

constexpr std::size_t kEntry = sizeof(PacketFileEntry);
constexpr std::size_t kFirst = sizeof(PacketFileHead);  ///< where the first entry begins

/// Two packets of 5 and 0 bytes, an overrun and an end mark.
std::string Recording() {
    std::string bytes;
    PacketFileWriter writer([&](const ByteSpan& data) {
        bytes.append(reinterpret_cast<const char*>(data.data()), data.size());
        return true;
    });
    writer.Begin("camera", 4096, 77);
    std::array<unsigned char, 5> payload{'h', 'e', 'l', 'l', 'o'};
    PacketHeader header;
    header.pts = -5;
    header.key = true;
    header.timestampSec = 3;
    header.length = payload.size();
    EXPECT_TRUE(writer.Packet(10, header, payload));
    EXPECT_TRUE(writer.Mark(11, PacketFileKind::Overrun));
    EXPECT_TRUE(writer.Packet(12, {}, {}));
    EXPECT_TRUE(writer.Mark(13, PacketFileKind::EndOfStream));
    return bytes;
}

PacketFileReader ReaderOf(const std::string& bytes) {
    auto place = std::make_shared<std::size_t>(0);
    return PacketFileReader(
        [bytes, place](const ByteSpan& buffer) {
            const std::size_t count = std::min<std::size_t>(buffer.size(), bytes.size() - *place);
            std::copy_n(bytes.data() + *place, count, buffer.data());
            *place += count;
            return count;
        },
        "tape");
}

TEST(PacketFile, GivesBackWhatWasWritten) {
    PacketFileReader reader = ReaderOf(Recording());
    EXPECT_EQ(reader.RingName(), "camera");
    EXPECT_EQ(reader.RingSize(), 4096U);
    auto entry = reader.Next();
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->kind, PacketFileKind::Packet);
    EXPECT_EQ(entry->time, 10U);
    EXPECT_EQ(+entry->header.pts, -5);
    EXPECT_TRUE(entry->header.key);
    EXPECT_EQ(+entry->header.timestampSec, 3U);
    EXPECT_EQ(std::string(entry->payload.begin(), entry->payload.end()), "hello");
    entry = reader.Next();
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->kind, PacketFileKind::Overrun);
    entry = reader.Next();
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->kind, PacketFileKind::Packet);
    EXPECT_TRUE(entry->payload.empty());
    entry = reader.Next();
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->kind, PacketFileKind::EndOfStream);
    EXPECT_FALSE(reader.Next());
    EXPECT_FALSE(reader.IsTorn());
}

TEST(PacketFile, TornEndIsSeenAndAllBeforeItIsUsable) {
    const std::string whole = Recording();
    const std::vector<std::size_t> ends{kFirst, kFirst + kEntry + 31, kFirst + 2 * kEntry + 31,
                                        kFirst + 3 * kEntry + 57, kFirst + 4 * kEntry + 57};
    ASSERT_EQ(whole.size(), ends.back());
    for (std::size_t size = kFirst; size <= whole.size(); ++size) {
        PacketFileReader reader = ReaderOf(whole.substr(0, size));
        std::size_t entries = 0;
        while (reader.Next()) {
            ++entries;
        }
        const auto end = std::upper_bound(ends.begin(), ends.end(), size) - 1;
        EXPECT_EQ(entries, static_cast<std::size_t>(end - ends.begin())) << size;
        EXPECT_EQ(reader.IsTorn(), *end != size) << size;
        EXPECT_EQ(reader.Good(), *end) << size;
    }
}

struct BadFile {
    const char* name;
    std::size_t place;
    std::string bytes;
    const char* complaint;
};

void PrintTo(const BadFile& file, std::ostream* out) {
    *out << file.name;
}

class BadPacketFile : public testing::TestWithParam<BadFile> {};

TEST_P(BadPacketFile, IsRefusedWithThePlace) {
    std::string bytes = Recording();
    bytes.replace(GetParam().place, GetParam().bytes.size(), GetParam().bytes);
    const auto readAll = [&] {
        PacketFileReader reader = ReaderOf(bytes);
        while (reader.Next()) {
        }
    };
    EXPECT_THAT(Thrown<PacketFileError>(readAll), HasSubstr(GetParam().complaint));
}

INSTANTIATE_TEST_SUITE_P(
    Files, BadPacketFile,
    testing::Values(
        BadFile{"OtherMagic", 0, "\x88", "tape is no recording"},
        BadFile{"TextConversion", 4, "\n", "tape is no recording"},
        BadFile{"LaterVersion", 8, "\2", "tape is a recording of version 2, and 1 can be read"},
        BadFile{"ShortHead", 12, std::string("\0\0", 2), "its head cannot be"},
        BadFile{"HugeHead", 14, "\x7f", "its head cannot be"},
        BadFile{"HeadBeyondTheEnd", 13, "\x70", "its head is not there in full"},
        BadFile{"NegativeRing", 23, "\xff", "its head cannot be"},
        BadFile{"EndlessName", 287, "x", "its head cannot be"},
        BadFile{"NoKind", kFirst, std::string("\0", 1), "at byte 288: no entry begins there"},
        BadFile{"UnknownKind", kFirst, "\4", "at byte 288: no entry begins there"},
        BadFile{"Reserved", kFirst + 4, "\1", "at byte 288: no entry begins there"},
        BadFile{"HugeLength", kFirst + 23, "\x80", "at byte 288: its length cannot be"},
        BadFile{"ShortLength", kFirst + 16, "\x19", "at byte 288: its length cannot be"},
        BadFile{"OtherLength", kFirst + 16, "\x1e", "at byte 288: its packet has another length"},
        BadFile{"HeaderLength", kFirst + kEntry, "\6", "its packet has another length"},
        BadFile{"Time", kFirst + 8, "\xb", "at byte 288: its check does not hold"},
        BadFile{"Check", kFirst + 24, "?", "at byte 288: its check does not hold"},
        BadFile{"TimeStamp", kFirst + kEntry + 9, "?", "at byte 288: its check does not hold"},
        BadFile{"Payload", kFirst + kEntry + 26, "j", "at byte 288: its check does not hold"},
        BadFile{"SecondEntry", kFirst + kEntry + 31, "\1", "at byte 351: its length cannot be"},
        BadFile{"MarkWithLength", kFirst + kEntry + 31 + 16, "\1", "at byte 351: no entry"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(PacketFile, LengthThatIsNotThereTakesNoMemory) {
    std::string bytes = Recording();
    const std::uint64_t payload = 1ULL << 46U;
    const std::uint64_t length = payload + kPacketHeaderSize;
    std::memcpy(&bytes[kFirst + 16], &length, sizeof(length));
    std::memcpy(&bytes[kFirst + kEntry], &payload, sizeof(payload));
    PacketFileReader reader = ReaderOf(bytes);
    EXPECT_FALSE(reader.Next());
    EXPECT_TRUE(reader.IsTorn());
}

TEST(PacketFile, PayloadLargerThanAskedForIsRefused) {
    PacketFileReader reader = ReaderOf(Recording());
    reader.SetLargestPayload(4);
    EXPECT_EQ(Thrown<PacketFileError>([&] { (void)reader.Next(); }),
              "tape: a packet of 5 bytes is more than the 4 that fit");
}

TEST(PacketFile, SinkThatStopsIsTold) {
    PacketFileWriter writer([](const ByteSpan&) { return false; });
    writer.Begin("camera", 4096, 0);
    EXPECT_FALSE(writer.Flush());
}

TEST(TapPace, PausesGrowToAnEighthOfALap) {
    using std::chrono::microseconds;
    TapPace pace(8'000'000);
    EXPECT_EQ(pace.Next(), microseconds(50));
    EXPECT_EQ(pace.Next(), microseconds(100));
    for (int round = 0; round < 10; ++round) {
        (void)pace.Next();
    }
    EXPECT_EQ(pace.Next(), microseconds(1000)) << "1 GB/s is expected at first";
    const TapPace::Clock::time_point start;
    pace.Came(1, start);
    EXPECT_EQ(pace.Next(), microseconds(50)) << "as short as can be when something came";
    pace.Came(4'000'000, start + std::chrono::milliseconds(1));
    for (int round = 0; round < 10; ++round) {
        (void)pace.Next();
    }
    EXPECT_EQ(pace.Next(), microseconds(250)) << "4 GB/s";
    pace.Came(1, start + std::chrono::seconds(100));
    for (int round = 0; round < 10; ++round) {
        (void)pace.Next();
    }
    EXPECT_EQ(pace.Next(), TapPace::kLongest) << "a slow writer";
}

TEST(TapPace, LongestPauseMayBeGiven) {
    TapPace pace(8'000'000, std::chrono::microseconds(70));
    EXPECT_EQ(pace.Next().count(), 50);
    EXPECT_EQ(pace.Next().count(), 70);
}

}  // namespace
}  // namespace qel::test
