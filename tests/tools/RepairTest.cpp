#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "Command.h"
#include "EndOfStream.h"
#include "NodeClaim.h"
#include "RestingRing.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

using testing::HasSubstr;

CommandResult Doctor(const std::string& name, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"doctor", name});
    return RunQev(more);
}

TEST(Repair, PutsRightWhatTheDoctorHasNamedAndTheChainRunsOn) {
    const RestingRing ring;
    ring.Write("hello");
    ring.Write("again");
    ring.LeaveStaleIndex(kRecord);
    const CommandResult dry = RunQev({"repair", ring.Name(), "--dry-run"});
    EXPECT_EQ(dry.status, 0);
    EXPECT_EQ(
        dry.out.substr(0, dry.out.find("was changed\n")),
        "wIdx[0]     31 -> 62\nwaiting for node 1: 2 packets\nring " + ring.Name() + ": nothing ");
    const CommandResult found = Doctor(ring.Name());
    EXPECT_EQ(found.status, 1);
    EXPECT_THAT(found.out, HasSubstr("fault    ring " + ring.Name()))
        << "nobody can be in the middle of anything, though processes may be hidden";
    const CommandResult result = RunQev({"repair", ring.Name()});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "wIdx[0]     31 -> 62\nwaiting for node 1: 2 packets\nring " +
                              ring.Name() + ": put right\n");
    EXPECT_EQ(Doctor(ring.Name()).status, 0);
    ring.Write("third");
    EXPECT_EQ(ring.Read(), "hello");
    EXPECT_EQ(ring.Read(), "again");
    EXPECT_EQ(ring.Read(), "third");
    EXPECT_EQ(RunQev({"repair", ring.Name()}).out,
              "ring " + ring.Name() + ": nothing is to be done\n");
}

TEST(Repair, GivesBackWhatAKilledReaderHeldAndKeepsTheRest) {
    const RestingRing ring(5);
    ring.Write("first");
    EXPECT_EQ(ring.Read(), "first");
    ring.Write("taken");
    ring.Write("later");
    ChildProcess reader([&](const Conversation& parent) {
        const auto sink = ring.Open(1);
        const auto next = sink->ReadNextPacket();
        parent.Say(next.status == SMStatusCode::SUCCESS ? "taken" : "");
        (void)parent.Hear();
        return 0;
    });
    EXPECT_EQ(reader.Hear(), "taken");
    EXPECT_EQ(Doctor(ring.Name()).status, 0);  // it may hold them
    reader.Kill();
    (void)reader.Wait();
    const auto writer = ring.Open(0);
    const NodeClaim claim(ring.Name(), 0);
    const CommandResult found = Doctor(ring.Name());
    const bool isAllSeen = found.out.find("hidden from this user") == std::string::npos;
    EXPECT_EQ(found.status, isAllSeen ? 1 : 0);
    EXPECT_THAT(found.out, HasSubstr("31 bytes are in no counter: the sink had read them and not "
                                     "released them"));
    EXPECT_THAT(found.out, HasSubstr("stop its processes, then qev repair " + ring.Name()));
    EXPECT_THAT(found.out, HasSubstr("node 1 is not there, and 31 bytes wait for it"));
}

TEST(Repair, OfAChainThatWasKilledLetsItRunOn) {
    const RestingRing ring(5);
    ring.Write("first");
    EXPECT_EQ(ring.Read(), "first");
    {
        ring.Write("taken");
        const auto sink = ring.Open(1);
        EXPECT_EQ(sink->ReadNextPacket().status, SMStatusCode::SUCCESS);  // and never releases it
    }
    ring.Write("later");
    const CommandResult result = RunQev({"repair", ring.Name()});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "avail[0]    4034 -> 4065\nnumPackets  2 -> 1\n"
              "lost: 1 packet, which the sink had read or the writer had not finished\n"
              "waiting for node 1: 1 packet\nring " +
                  ring.Name() + ": put right\n");
    Command consumer(
        {"consume", "--name", ring.Name(), "--size", "4096", "--max-frames", "5", "--node", "1"});
    ring.Write("after");
    const auto writer = ring.Open(0);
    EXPECT_EQ(writer->WriteCriticalPacket(MakeEndOfStream()), SMStatusCode::SUCCESS);
    EXPECT_EQ(consumer.Wait().out, "laterafter");
}

TEST(Repair, RefusesWhileSomebodyUsesTheRing) {
    const RestingRing ring;
    ring.Write("hello");
    ring.LeaveStaleIndex(kRecord);
    const std::string before = ReadFile(ring.Path());
    const auto user = ring.Open(1);
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--force"}}) {
        std::vector<std::string> arguments{"repair", ring.Name()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const CommandResult result = RunQev(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, HasSubstr(more.empty() ? "was not changed: process "
                                                       : "there is no terminal to ask on"));
        EXPECT_TRUE(ReadFile(ring.Path()) == before);
    }
    EXPECT_EQ(RunQev({"repair", ring.Name(), "--force", "--yes"}).status, 0);
    EXPECT_FALSE(ReadFile(ring.Path()) == before);
}

TEST(Repair, RefusesWhileAnyProcessThatIsHiddenUsesTheRing) {
    const RestingRing ring;
    ring.Write("hello");
    ring.LeaveStaleIndex(kRecord);
    const std::string before = ReadFile(ring.Path());
    const auto user = ring.Open(1);
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);
    const CommandResult result = RunQev({"repair", ring.Name()}, {-1, -1, -1, true});
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("hidden from this user"));
    EXPECT_TRUE(ReadFile(ring.Path()) == before);
}

TEST(Repair, RefusesWhatItCannotMendAndSaysWhy) {
    const RestingRing ring;
    ring.Write("hello");
    ring.LeaveStaleIndex(7);
    const std::string before = ReadFile(ring.Path());
    const CommandResult result = RunQev({"repair", ring.Name()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("no record explains the difference"));
    EXPECT_THAT(result.err, HasSubstr("try qev clean " + ring.Name()));
    EXPECT_TRUE(ReadFile(ring.Path()) == before);
}

TEST(Repair, InitialisesARingWhoseFirstOpenerDied) {
    const RestingRing ring(3);
    ring.Leave([](ControlBlock& control) {
        control.avail[0].store(0);
        control.maxPackets = 0;
    });
    EXPECT_THAT(Doctor(ring.Name()).out, HasSubstr("the ring is not initialised"));
    EXPECT_EQ(RunQev({"repair", ring.Name(), "--max-frames", "3"}).out,
              "avail[0]    0 -> 4096\nmaxPackets  0 -> 4\nring " + ring.Name() + ": put right\n");
    ring.Write("hello");
    EXPECT_EQ(ring.Read(), "hello");
    EXPECT_EQ(Doctor(ring.Name(), {"--max-frames", "3"}).status, 0);
}

TEST(Repair, OfABlockSaysWhatPutsItRight) {
    const UniqueBlockName name;
    WriteFile(name.LockPath(), "");
    const CommandResult result = RunQev({"repair", name.Name()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("start a writer with a size"));
    EXPECT_EQ(RunQev({"repair", "qev-test-no-such-ring"}).err,
              "qev repair: there is no ring qev-test-no-such-ring\n");
    EXPECT_EQ(RunQev({"repair", "a/b"}).status, 2);
    EXPECT_EQ(RunQev({"repair"}).status, 2);
}

}  // namespace
}  // namespace qel::test
