#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Command.h"
#include "RingUnderTest.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

std::string Shown(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"inspect"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const CommandResult result = RunQev(all);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
}

/// From the line that begins with `first` on.
std::string From(const std::string& first, const std::string& text) {
    const auto place = text.find("\n" + first);
    return place == std::string::npos ? "" : text.substr(place + 1);
}

void Forge(const RingUnderTest& ring, std::uint64_t value, off_t place) {
    const int object = open(ring.Path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(pwrite(object, &value, sizeof value, place), static_cast<ssize_t>(sizeof value));
    (void)close(object);
}

TEST(Inspect, ShowsTheControlBlockWhereTheBytesAreAndWhatMustHold) {
    const RingUnderTest ring(2, 6);
    for (std::int64_t number = 0; number < 4; ++number) {
        ring.Write(number, 100);
    }
    ring.PassOn(1);
    (void)ring.Read(1);
    const std::string text = Shown({ring.Name()});
    EXPECT_THAT(text, HasSubstr("ring       " + ring.Name() + "\nobject     " + ring.Path() +
                                ", 5152 bytes, "));
    EXPECT_THAT(text, HasSubstr("data area  5000 bytes\npackets    4 counted, at most 7\n"));
    EXPECT_THAT(text, HasSubstr("used by    " + std::to_string(getpid()) + " "));
    EXPECT_EQ(
        From("node ", text),
        "node                    avail                 wIdx                 rIdx\n"
        "0                        4496                  504                    0\n"
        "1                         252                    0                  252\n"
        "2                         126                    0                    0\n"
        "3                           0                    0                    0\n"
        "4                           0                    0                    0\n"
        "numPackets 4, maxPackets 7, initialised 1, halfSize 2500, quarterSize 1250, reserved 0\n"
        "\n"
        "free       4496 of 5000 bytes; the largest packet that fits now has 4340 bytes\n"
        "                waiting for it                         held by it\n"
        "node 1          252 bytes, 2 records                   126 bytes, 1 record\n"
        "node 2, sink    126 bytes, 1 record                    0 bytes, 0 records\n"
        "The chain's length is what has been reached so far; --nodes tells it.\n"
        "\n"
        "holds      the ring is initialised\n"
        "holds      no index lies outside the ring, no counter exceeds it\n"
        "holds      the writer's index is where the records end\n"
        "holds      each stretch of the ring is made of whole records\n"
        "holds      numPackets is the number of records in the ring\n"
        "holds      halfSize is half of the ring's size\n"
        "holds      quarterSize is a quarter of it\n"
        "holds      reserved bytes are 0\n");
}

TEST(Inspect, ListsTheRecordsOfEachNode) {
    const RingUnderTest ring(2);
    ring.Write(0, 17);
    ring.Write(1, 5);
    ring.Write(2, 3);
    ring.Write(3, 4);
    ring.PassOn(1);
    (void)ring.Read(1);
    (void)ring.Read(2);
    EXPECT_EQ(From("held by node 1, ", Shown({ring.Name(), "--records", "--count", "1"})),
              "held by node 1, 31 bytes from 43 on\n"
              "            43           5 bytes  packet  pts 1                         time "
              "7.000001\n"
              "\n"
              "waiting for node 1, 59 bytes from 74 on\n"
              "            74           3 bytes  packet  pts 2                    key  time "
              "7.000002\n"
              "  and 1 more\n"
              "\n"
              "held by node 2, sink, 43 bytes from 0 on\n"
              "             0          17 bytes  packet  pts 0                    key  time "
              "7.000000\n");
    EXPECT_THAT(Shown({ring.Name(), "--hex", "--bytes", "18"}),
                HasSubstr("packet  pts 0                    key  time 7.000000\n"
                          "    00000000  61 61 61 61 61 61 61 61 61 61 61 61 61 61 61 61  "
                          "aaaaaaaaaaaaaaaa\n"
                          "    00000010  61                                               a\n"));
    EXPECT_THAT(Shown({ring.Name(), "--nodes", "4"}), HasSubstr("node 3, sink    0 bytes"));
}

TEST(Inspect, OfAnEmptyRingSaysThatItHoldsNoRecord) {
    const RingUnderTest ring;
    EXPECT_THAT(Shown({ring.Name(), "--records"}), HasSubstr("\nno record is in the ring\n"));
}

TEST(Inspect, GivesTheSameAsJson) {
    const RingUnderTest ring(1, 6);
    ring.Write(4, 3);
    const auto json = nlohmann::json::parse(Shown({ring.Name(), "--json", "--hex"}));
    EXPECT_EQ(json["ring"], ring.Name());
    EXPECT_EQ(json["size"], 5000);
    EXPECT_EQ(json["still"], true);
    EXPECT_EQ(json["fields"]["avail"], nlohmann::json({4971, 29, 0, 0, 0}));
    EXPECT_EQ(json["fields"]["maxPackets"], 7);
    EXPECT_EQ(json["largestNow"], 4815);
    EXPECT_EQ(json["stretches"][1]["list"][0],
              nlohmann::json::parse(R"({"offset": 0, "length": 3, "filler": false, "pts": 4,
                  "key": true, "seconds": 7, "microseconds": 4, "payload": [101, 101, 101]})"));
    EXPECT_EQ(json["users"][0]["pid"], getpid());
    for (const auto& invariant : json["invariants"]) {
        EXPECT_EQ(invariant["holds"], true) << invariant;
    }
}

/// A forged control block and the line that tells what is wrong with it.
struct ForgedField {
    off_t place;
    std::uint64_t value;
    std::string line;
};

class InspectOfAForgedRing : public testing::TestWithParam<ForgedField> {};

TEST_P(InspectOfAForgedRing, NamesTheInvariantThatIsBroken) {
    const RingUnderTest ring(1, 6);
    ring.Write(0, 100);
    ring.Write(1, 100);
    Forge(ring, GetParam().value, GetParam().place);
    EXPECT_THAT(Shown({ring.Name(), "--records"}), HasSubstr("\n" + GetParam().line + "\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Fields, InspectOfAForgedRing,
    testing::Values(
        ForgedField{0, 5001,
                    "BROKEN     no index lies outside the ring, no counter exceeds it: the fields "
                    "are not those of a ring of this size"},
        ForgedField{80, ~std::uint64_t{0},
                    "These are not the fields of a ring of this size: nothing can be derived."},
        ForgedField{40, 278,
                    "BROKEN     the writer's index is where the records end: it is 26 bytes ahead"},
        ForgedField{40, 126,
                    "BROKEN     the writer's index is where the records end: it is 126 bytes "
                    "behind"},
        ForgedField{152 + 126, 4000,
                    "BROKEN     each stretch of the ring is made of whole records: 126 bytes for "
                    "node 1 from 126 on are no record"},
        ForgedField{152 + 126, 4000, "  126 bytes that are no record"},
        ForgedField{152 + 126, ~std::uint64_t{0}, "  126 bytes that are no record"},
        ForgedField{120, 0x0000000100000005,
                    "BROKEN     numPackets is the number of records in the ring: it is 5, not 2"},
        ForgedField{120, 2, "BROKEN     the ring is initialised: the byte is 0"},
        ForgedField{120, 0x1700000100000002, "BROKEN     reserved bytes are 0: they are not"},
        ForgedField{136, 7, "BROKEN     halfSize is half of the ring's size: it is 7, not 2500"},
        ForgedField{144, 7, "BROKEN     quarterSize is a quarter of it: it is 7, not 1250"}));

TEST(Inspect, ChangesNothingAndTakesNoMemory) {
    const UniqueRingName name;
    const int object = open(name.Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(ftruncate(object, 1 << 20), 0);
    const std::string text = Shown({name.Name(), "--records"});
    EXPECT_THAT(text, EndsWith("\n\nfresh: nobody has opened it yet\n"));
    struct stat status {};
    ASSERT_EQ(fstat(object, &status), 0);
    EXPECT_EQ(status.st_blocks, 0);
    EXPECT_EQ(status.st_size, 1 << 20);
    (void)close(object);
}

TEST(Inspect, OfAnObjectWithoutRoomForARingSaysSo) {
    const UniqueRingName name;
    WriteFile(name.Path(), "short");
    EXPECT_THAT(Shown({name.Name(), "--records"}),
                EndsWith("\n\nits object has 5 bytes, a ring more than 152\n"));
    WriteFile(name.Path(), "");
    EXPECT_THAT(Shown({name.Name()}), EndsWith("\n\nfresh: nobody has opened it yet\n"));
}

TEST(Inspect, OfARingThatMayNotBeReadSaysWhy) {
    const RingUnderTest ring;
    ASSERT_EQ(chmod(ring.Path().c_str(), 0), 0);
    Streams streams;
    streams.withoutPrivileges = true;
    const CommandResult result = RunQev({"inspect", ring.Name()}, streams);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev inspect: cannot read " + ring.Path() + ": 13(Permission denied)\n");
    EXPECT_EQ(result.out, "");
}

TEST(Inspect, OfARingThatIsNotThereFails) {
    const UniqueRingName name;
    const CommandResult result = RunQev({"inspect", name.Name()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev inspect: there is no ring " + name.Name() + "\n");
}

TEST(Inspect, OfAnotherObjectsNameTellsWhatShowsIt) {
    const UniqueBlockName name;
    WriteFile(name.LockPath(), "");
    EXPECT_EQ(RunQev({"inspect", name.Name()}).err,
              "qev inspect: there is no ring " + name.Name() +
                  "; the block of this name is shown by  qev block show " + name.Name() + "\n");
}

}  // namespace
}  // namespace qel::test
