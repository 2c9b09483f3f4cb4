// A ring in which a longer chain has left the index of a node that the present one does not have.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ChildProcess.h"
#include "Command.h"
#include "NodeClaim.h"
#include "RestingRing.h"

namespace qel::test {
namespace {

using testing::HasSubstr;
using testing::Not;

/// Three nodes have passed on one packet, then two have passed on some.
class RecycledRing : public testing::Test {
protected:
    RecycledRing() {
        ring_.Write("hello");
        PassOn(1, false);
        PassOn(2, true);
        for (const char* const content : {"first", "again", "third"}) {
            ring_.Write(content);
            PassOn(1, true);
        }
    }

    void PassOn(std::uint8_t node, bool isLast) const { PassOn(node, isLast, ring_); }

    static void PassOn(std::uint8_t node, bool isLast, const RestingRing& ring) {
        const auto open = OpenRing({ring.Name(), RestingRing::kSize, node, isLast, 0});
        const auto next = open->ReadNextPacket();
        ASSERT_EQ(next.status, SMStatusCode::SUCCESS);
        ASSERT_EQ(open->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
    }

    void LetTheSinkDieWithOnePacket() const {
        ring_.Write("taken");
        const auto sink = ring_.Open(1);
        ASSERT_EQ(sink->ReadNextPacket().status, SMStatusCode::SUCCESS);
    }

    RestingRing ring_;
};

TEST_F(RecycledRing, IsSoundAndHasTheNodesThatItHasNow) {
    ring_.Write("waits");
    const CommandResult rest = RunQev({"doctor", ring_.Name()});
    EXPECT_EQ(rest.status, 0) << rest.out;
    EXPECT_THAT(rest.out, HasSubstr(", 2 nodes"));
    const auto writer = ring_.Open(0);
    const auto sink = ring_.Open(1);
    const NodeClaim first(ring_.Name(), 0);
    const NodeClaim last(ring_.Name(), 1);
    EXPECT_EQ(sink->ReadNextPacket().status, SMStatusCode::SUCCESS);
    const CommandResult held = RunQev({"doctor", ring_.Name()});
    EXPECT_EQ(held.status, 0) << held.out;
    EXPECT_THAT(held.out, HasSubstr(", 2 nodes, "));
    EXPECT_THAT(RunQev({"ls", ring_.Name()}).out, Not(HasSubstr("desynchronised")));
    EXPECT_THAT(RunQev({"top", ring_.Name(), "--once", "--json"}).out,
                Not(HasSubstr("\"node\":2")));
}

TEST_F(RecycledRing, IsPutRightForTheChainThatItHasNow) {
    LetTheSinkDieWithOnePacket();
    const CommandResult result = RunQev({"repair", ring_.Name()});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "avail[0]    4065 -> 4096\n"
              "lost: 1 packet, which the sink had read or the writer had not finished\n"
              "ring " +
                  ring_.Name() + ": put right\n");
    ring_.Write("after");
    EXPECT_EQ(ring_.Read(), "after");
}

TEST_F(RecycledRing, IsPutRightForTheChainThatIsTold) {
    LetTheSinkDieWithOnePacket();
    EXPECT_THAT(RunQev({"doctor", ring_.Name(), "--nodes", "2"}).out,
                HasSubstr("31 bytes are in no counter"));
    EXPECT_EQ(RunQev({"repair", ring_.Name(), "--nodes", "2"}).status, 0);
    ring_.Write("after");
    EXPECT_EQ(ring_.Read(), "after");
}

TEST_F(RecycledRing, IsNotCutShortByANumberOfNodesForWhichSomethingWaitsBehind) {
    ring_.Write("waits");
    PassOn(1, false);
    const CommandResult result = RunQev({"repair", ring_.Name(), "--nodes", "2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("packets wait for node 2: the chain has 3 nodes or more; try "
                                      "qev repair " +
                                      ring_.Name() + " --nodes 3"));
}

/// What the sink holds begins where the longer chain's last node stopped.
TEST_F(RecycledRing, ThatDoesNotTellHowLongItsChainIsHasToBeTold) {
    const RestingRing ring;
    ring.Write("hello");
    PassOn(1, false, ring);
    PassOn(2, true, ring);
    ring.Write("taken");
    {
        const auto sink = ring.Open(1);
        ASSERT_EQ(sink->ReadNextPacket().status, SMStatusCode::SUCCESS);
    }
    ring.Write("later");
    EXPECT_THAT(RunQev({"doctor", ring.Name()}).out,
                HasSubstr("mend: qev repair " + ring.Name() + " --nodes N"));
    const CommandResult result = RunQev({"repair", ring.Name()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("does not tell whether its chain has 3 nodes or 2"));
    EXPECT_EQ(RunQev({"repair", ring.Name(), "--nodes", "2"}).status, 0);
    EXPECT_EQ(ring.Read(), "later");
}

}  // namespace
}  // namespace qel::test
