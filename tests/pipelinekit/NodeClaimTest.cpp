#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "ChildProcess.h"
#include "NodeClaim.h"
#include "OpenRing.h"
#include "ProcessState.h"
#include "RingError.h"
#include "RingObject.h"
#include "Thrown.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 10000;

class NodeClaimTest : public testing::Test {
protected:
    [[nodiscard]] std::string TakenText(unsigned node) const {
        return "ring " + name_.Name() + ": node " + std::to_string(node) +
               " is taken by another process or element";
    }
    [[nodiscard]] std::string ClaimText(unsigned node) const {
        return Thrown<NodeTaken>([&] { const NodeClaim claim(name_.Name(), node); });
    }

    UniqueRingName name_;
    RingObject object_{name_.Name(), kSize};
};

TEST_F(NodeClaimTest, SecondOfTheSameProcessIsRefused) {
    const NodeClaim claim(name_.Name(), 1);
    EXPECT_EQ(ClaimText(1), TakenText(1));
    EXPECT_EQ(ClaimText(1), TakenText(1));
}

TEST_F(NodeClaimTest, SecondOfAnotherProcessIsRefused) {
    std::optional<NodeClaim> claim;
    ChildProcess other([&](const Conversation& parent) {
        while (!parent.Hear().empty()) {
            parent.Say(ClaimText(1));
        }
        return 0;
    });
    claim.emplace(name_.Name(), 1);  // after the fork, so that it is not shared
    other.Say("claim");
    EXPECT_EQ(other.Hear(), TakenText(1));
    claim.reset();
    other.Say("claim");
    EXPECT_EQ(other.Hear(), "nothing thrown");
}

TEST_F(NodeClaimTest, OtherNodesAndOtherRingsAreFree) {
    const UniqueRingName otherName;
    const RingObject otherObject(otherName.Name(), kSize);
    const NodeClaim claim(name_.Name(), 1);
    for (const unsigned node : {0U, 2U, 3U, 4U}) {
        EXPECT_EQ(ClaimText(node), "nothing thrown") << node;
    }
    const NodeClaim other(otherName.Name(), 1);
}

TEST_F(NodeClaimTest, EndsWithTheObject) {
    { const NodeClaim claim(name_.Name(), 1); }
    EXPECT_EQ(ClaimText(1), "nothing thrown");
}

TEST_F(NodeClaimTest, EndsWithAProcessThatIsKilled) {
    ChildProcess holder([&](const Conversation& parent) {
        const NodeClaim claim(name_.Name(), 1);
        parent.Say("held");
        (void)parent.Hear();
        return 0;
    });
    ASSERT_EQ(holder.Hear(), "held");
    EXPECT_EQ(ClaimText(1), TakenText(1));
    holder.Kill();
    ASSERT_EQ(holder.ExitCode(), -1);
    EXPECT_EQ(ClaimText(1), "nothing thrown");
}

TEST_F(NodeClaimTest, OutlivesOtherDescriptorsOfTheObjectInThisProcess) {
    const NodeClaim claim(name_.Name(), 0);
    (void)OpenRing({name_.Name(), kSize, 0, false, 0});
    EXPECT_EQ(RingObject::FindSize(name_.Name()), kSize);
    EXPECT_EQ(ClaimText(0), TakenText(0));
}

TEST_F(NodeClaimTest, IsSharedByAForkedChildUntilBothHaveEndedIt) {
    auto claim = std::make_unique<NodeClaim>(name_.Name(), 1);
    ChildProcess child([](const Conversation& parent) {
        (void)parent.Hear();
        return 0;
    });
    claim.reset();
    EXPECT_EQ(ClaimText(1), TakenText(1));
    child.Say("end");
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(ClaimText(1), "nothing thrown");
}

TEST_F(NodeClaimTest, IsNotPassedToAProgramThatIsExecuted) {
    const int next = NextDescriptor();
    const NodeClaim claim(name_.Name(), 1);
    ASSERT_EQ(PathOfDescriptor(std::to_string(next)), name_.Path());
    EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
}

TEST_F(NodeClaimTest, RefusedOneLeavesNoDescriptor) {
    const NodeClaim claim(name_.Name(), 1);
    const Holdings before = HoldingsOf(name_.Name());
    EXPECT_EQ(ClaimText(1), TakenText(1));
    EXPECT_TRUE(HoldingsOf(name_.Name()) == before);
}

TEST_F(NodeClaimTest, MissingObjectIsAnErrorWithItsErrno) {
    object_.Remove();
    try {
        const NodeClaim claim(name_.Name(), 1);
        FAIL() << "claimed what is not there";
    } catch (const RingError& failure) {
        EXPECT_EQ(failure.Errno(), ENOENT);
        EXPECT_EQ(std::string(failure.what()), "ring " + name_.Name() + ": cannot open " +
                                                   name_.ObjectName() +
                                                   ": 2(No such file or directory)");
    }
    EXPECT_EQ(RingObject::FindSize(name_.Name()), std::nullopt);
}

TEST_F(NodeClaimTest, RefusesWhatNoRingCanHave) {
    EXPECT_EQ(Thrown<std::invalid_argument>([&] { const NodeClaim claim(name_.Name(), 5); }),
              "node 5 is not in 0 to 4");
    EXPECT_EQ(Thrown<std::invalid_argument>([] { const NodeClaim claim("a/b", 1); }),
              "the name of a ring must not contain a slash: a/b");
}

}  // namespace
}  // namespace qel::test
