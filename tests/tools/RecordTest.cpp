#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "Command.h"
#include "EndOfStream.h"
#include "OpenRing.h"
#include "PacketFile.h"
#include "RingUnderTest.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// The entries of a recording without their times, one behind the other.
std::string Content(const std::string& path) {
    const std::string bytes = ReadFile(path);
    std::string content;
    for (std::size_t place = sizeof(PacketFileHead); place < bytes.size();) {
        PacketFileEntry entry;
        std::memcpy(&entry, bytes.data() + place, sizeof(entry));
        place += sizeof(entry);
        content += static_cast<char>('0' + entry.kind) + bytes.substr(place, entry.length);
        place += entry.length;
    }
    return content;
}

class RecordTest : public testing::Test {
protected:
    [[nodiscard]] std::vector<std::string> Record(const std::vector<std::string>& more) const {
        std::vector<std::string> all{"record", name_.Name(), "--output", File()};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    [[nodiscard]] std::string File() const { return folder_.Path("a.qev"); }

    /// The recorder has the file as soon as it follows the ring.
    void WaitForRecorder() const {
        WaitUntil([&] { return Exists(File()); });
    }

    UniqueRingName name_;
    UniqueRingName other_;
    TemporaryFolder folder_;
};

TEST_F(RecordTest, RecordingThatIsReplayedAndRecordedAgainIsTheSame) {
    const std::string content = SomeBytes(300000);
    WriteFile(folder_.Path("input"), content);
    const auto ring = OpenRing({name_.Name(), 1 << 20, 0, false, 0});
    Command record(Record({}));
    WaitForRecorder();
    Command consume({"consume", "--name", name_.Name(), "--size", "1MiB", "--node", "1", "--output",
                     folder_.Path("first")});
    EXPECT_EQ(RunQev({"produce", "--name", name_.Name(), "--size", "1MiB", "--packet", "700",
                      "--input", folder_.Path("input")})
                  .status,
              0);
    EXPECT_EQ(consume.Wait().status, 0);
    const CommandResult recorded = record.Wait();
    EXPECT_EQ(recorded.status, 0);
    EXPECT_THAT(recorded.err, StartsWith("qev record: 429 packets, 300000 bytes, 0 overruns, "));

    const std::string again = folder_.Path("b.qev");
    const auto second = OpenRing({other_.Name(), 1 << 20, 0, false, 0});
    Command recordAgain({"record", other_.Name(), "--output", again});
    WaitUntil([&] { return Exists(again); });
    Command consumeAgain({"consume", "--name", other_.Name(), "--size", "1MiB", "--node", "1",
                          "--output", folder_.Path("second")});
    const CommandResult replayed = RunQev({"replay", File(), "--name", other_.Name(), "--fast"});
    EXPECT_EQ(replayed.status, 0);
    EXPECT_THAT(replayed.err, StartsWith("qev replay: 429 packets, 300000 bytes, xxh3 "));
    EXPECT_EQ(consumeAgain.Wait().status, 0);
    EXPECT_EQ(recordAgain.Wait().status, 0);
    EXPECT_TRUE(ReadFile(folder_.Path("second")) == content);
    EXPECT_TRUE(Content(again) == Content(File()));
    EXPECT_EQ(Content(File()).size(), 429 * 27 + content.size() + 1);
}

TEST_F(RecordTest, EndsAtALimit) {
    const RingUnderTest ring;
    for (int number = 1; number <= 9; ++number) {
        (void)ring.Write(number, 100);
    }
    const std::vector<std::string> record{"record", ring.Name(), "--from-oldest", "--output",
                                          File()};
    const auto with = [&](const std::string& option, const std::string& value) {
        auto all = record;
        all.insert(all.end(), {option, value});
        return RunQev(all);
    };
    EXPECT_THAT(with("--packets", "3").err, StartsWith("qev record: 3 packets, 300 bytes, "));
    EXPECT_THAT(with("--bytes", "450").err, StartsWith("qev record: 5 packets, 500 bytes, "));
    const CommandResult result = with("--seconds", "0.01");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, StartsWith("qev record: 9 packets, 900 bytes, "));
}

TEST_F(RecordTest, InterruptedRecordingIsWhole) {
    const RingUnderTest ring;
    Command record({"record", ring.Name(), "--output", File()});
    WaitForRecorder();
    (void)ring.Write(1, 100);
    WaitUntil([&] { return ReadFile(File()).size() > sizeof(PacketFileHead); });
    record.Signal(SIGINT);
    const CommandResult result = record.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, StartsWith("qev record: 1 packet, 100 bytes, 0 overruns, "));
    EXPECT_THAT(result.err, testing::EndsWith("; stopped\n"));
    EXPECT_EQ(Content(File()).size(), 127U);
}

TEST_F(RecordTest, OverrunIsSaidAtOnceAndInTheStatus) {
    const RingUnderTest ring;
    Command record({"record", ring.Name(), "--output", File(), "--packets", "2"});
    WaitForRecorder();
    (void)ring.Write(1, 100);
    WaitUntil([&] { return ReadFile(File()).size() > sizeof(PacketFileHead); });
    record.Signal(SIGSTOP);
    ring.PassOn(1);
    for (int number = 2; number <= 40; ++number) {
        (void)ring.Write(number, 1000);
        while (ring.Node(1).ReadNextPacket().status == SMStatusCode::SUCCESS) {
        }
        Packet all;
        std::vector<unsigned char> room(RingUnderTest::kSize - kPacketHeaderSize);
        all.data = room;
        (void)ring.Node(1).ReleasePacket(all);
    }
    record.Signal(SIGCONT);
    const CommandResult result = record.Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err,
                StartsWith("qev record: overrun behind packet 1: packets may have been missed\n"
                           "qev record: 2 packets, 1100 bytes, 1 overrun, "));
    EXPECT_EQ(Content(File()).at(127), '3');
}

TEST_F(RecordTest, WaitsForTheRingAndForTheNext) {
    Command record(Record({"--wait-for", "--from-oldest", "--follow", "--packets", "2"}));
    {
        const auto ring = OpenRing({name_.Name(), 5000, 0, false, 0});
        EXPECT_EQ(ring->WritePacket({}), SMStatusCode::SUCCESS);
        EXPECT_EQ(ring->WriteCriticalPacket(MakeEndOfStream()), SMStatusCode::SUCCESS);
        WaitUntil([&] { return ReadFile(File()).size() >= sizeof(PacketFileHead) + 90; });
        EXPECT_EQ(shm_unlink(name_.ObjectName().c_str()), 0);
    }
    const auto ring = OpenRing({name_.Name(), 9000, 0, false, 0});
    EXPECT_EQ(ring->WritePacket({}), SMStatusCode::SUCCESS);
    const CommandResult result = record.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("was made anew behind packet 1\n"));
    EXPECT_THAT(result.err, HasSubstr("qev record: 2 packets, 0 bytes, 0 overruns"));
}

TEST_F(RecordTest, RingThatIsRemovedEndsTheRecording) {
    const auto ring = OpenRing({name_.Name(), 5000, 0, false, 0});
    Command record(Record({}));
    WaitForRecorder();
    EXPECT_EQ(shm_unlink(name_.ObjectName().c_str()), 0);
    const CommandResult result = record.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, testing::EndsWith("; the ring was removed\n"));
}

TEST_F(RecordTest, RingThatIsCutIsFollowedOn) {
    const auto ring = OpenRing({name_.Name(), 5000, 0, false, 0});
    Command record(Record({}));
    WaitForRecorder();
    EXPECT_EQ(truncate(name_.Path().c_str(), 0), 0);
    EXPECT_EQ(shm_unlink(name_.ObjectName().c_str()), 0);
    EXPECT_EQ(record.Wait().status, 0) << "and no bus error";
}

TEST_F(RecordTest, RefusalsTouchNothing) {
    const CommandResult missing = RunQev(Record({}));
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "qev record: there is no ring " + name_.Name() + "\n");
    EXPECT_FALSE(Exists(File()));
    EXPECT_FALSE(Exists(name_.Path()));
    EXPECT_EQ(RunQev({"record", "a/b", "--output", File()}).status, 2);
    EXPECT_EQ(RunQev(Record({"--packets", "0"})).status, 2);
    EXPECT_EQ(RunQev(Record({"--caps", "image/jpeg"})).err,
              "qev record: --caps and --arrival-times are for --format matroska\n");
    EXPECT_FALSE(Exists(File()));
}

class ReplayTest : public RecordTest {
protected:
    /// Three packets of 100 bytes, and their end.
    void MakeRecording() const {
        const RingUnderTest ring;
        for (int number = 1; number <= 3; ++number) {
            (void)ring.Write(number, 100);
        }
        EXPECT_EQ(ring.Node(0).WriteCriticalPacket(MakeEndOfStream()), SMStatusCode::SUCCESS);
        EXPECT_EQ(RunQev({"record", ring.Name(), "--from-oldest", "--output", File()}).status, 0);
    }
    [[nodiscard]] std::vector<std::string> Replay(const std::vector<std::string>& more) const {
        std::vector<std::string> all{"replay", File(), "--name", name_.Name()};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    /// The packets' numbers that stand in the ring, and "end".
    [[nodiscard]] std::string Waiting(std::uint64_t size) const {
        const auto sink = OpenRing({name_.Name(), size, 1, true, 0});
        std::string text;
        for (auto next = sink->ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
             next = sink->ReadNextPacket()) {
            text += IsEndOfStream(next.packet)
                        ? "end "
                        : std::to_string(static_cast<std::int64_t>(next.packet.header.pts)) + " ";
            (void)sink->ReleasePacket(next.packet);
        }
        return text;
    }
};

TEST_F(ReplayTest, RingIsAsLargeAsTheRecordedOne) {
    MakeRecording();
    EXPECT_EQ(RunQev(Replay({})).status, 0);
    EXPECT_EQ(Waiting(RingUnderTest::kSize), "1 2 3 end ");
}

TEST_F(ReplayTest, LoopsAndSendsOneEnd) {
    MakeRecording();
    EXPECT_EQ(RunQev(Replay({"--loop", "3", "--speed", "1000", "--size", "9000"})).status, 0);
    EXPECT_EQ(Waiting(9000), "1 2 3 1 2 3 1 2 3 end ");
}

TEST_F(ReplayTest, EndCanBeLeftOut) {
    MakeRecording();
    EXPECT_EQ(RunQev(Replay({"--fast", "--no-end"})).status, 0);
    EXPECT_EQ(Waiting(RingUnderTest::kSize), "1 2 3 ");
}

TEST_F(ReplayTest, DamagedEntryIsNotSent) {
    MakeRecording();
    std::string bytes = ReadFile(File());
    bytes[sizeof(PacketFileHead) + 2 * 158 + 8] ^= 1;  // the third packet's time
    WriteFile(File(), bytes);
    const CommandResult result = RunQev(Replay({"--fast"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is damaged at byte 604: its check does not hold"));
    EXPECT_EQ(Waiting(RingUnderTest::kSize), "1 2 ");
}

TEST_F(ReplayTest, RecordingThatBrokeOffIsSentAsFarAsItGoes) {
    MakeRecording();
    const std::string bytes = ReadFile(File());
    WriteFile(File(), bytes.substr(0, sizeof(PacketFileHead) + 3 * 158 - 1));
    const CommandResult result = RunQev(Replay({"--fast"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr("the last entry of the recording is not there in full"));
    EXPECT_EQ(Waiting(RingUnderTest::kSize), "1 2 end ");
}

TEST_F(ReplayTest, ReadsStandardInput) {
    MakeRecording();
    const int input = open(File().c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(RunQev({"replay", "-", "--name", name_.Name(), "--fast"}, {input, -1, -1}).status, 0);
    (void)close(input);
    EXPECT_EQ(Waiting(RingUnderTest::kSize), "1 2 3 end ");
}

TEST_F(ReplayTest, RefusalsTouchNothing) {
    MakeRecording();
    const CommandResult result = RunQev(Replay({"--size", "200"}));
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("a packet of 100 bytes does not fit in a ring of 200"));
    EXPECT_EQ(RunQev(Replay({"--fast", "--speed", "2"})).status, 2);
    WriteFile(File(), "no recording");
    EXPECT_THAT(RunQev(Replay({})).err, HasSubstr("a.qev is no recording\n"));
    EXPECT_FALSE(Exists(name_.Path()));
}

}  // namespace
}  // namespace qel::test
