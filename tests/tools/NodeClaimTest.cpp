#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "Command.h"
#include "NodeClaim.h"
#include "OpenRing.h"
#include "Pipe.h"
#include "ProcessSurvey.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

class NodeClaimTest : public testing::Test {
protected:
    [[nodiscard]] std::vector<std::string> Stage(const std::string& verb,
                                                 const std::vector<std::string>& options) const {
        std::vector<std::string> all{verb, "--name", name_.Name(), "--size", "5000"};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    /// Which process is which node.
    [[nodiscard]] std::map<unsigned, pid_t> Nodes() const {
        std::map<unsigned, pid_t> nodes;
        struct stat status {};
        if (stat(name_.Path().c_str(), &status) == 0) {
            const ProcessSurvey processes = ProcessSurvey::Take();
            for (const ObjectUser& user : processes.UsersOf(status.st_dev, status.st_ino)) {
                for (const unsigned node : user.Nodes()) {
                    nodes[node] = user.pid;
                }
            }
        }
        return nodes;
    }

    void ExpectRefused(const std::string& verb, unsigned node,
                       const std::vector<std::string>& options) const {
        const CommandResult result = RunQev(Stage(verb, options));
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qev " + verb + ": ring " + name_.Name() + ": node " +
                                  std::to_string(node) +
                                  " is taken by another process or element\n");
    }

    UniqueRingName name_;
    TemporaryFolder folder_;
};

TEST_F(NodeClaimTest, StagesShowWhichNodeTheyAreAndRefuseASecondOne) {
    WriteFile(folder_.Path("precious"), "precious");
    Pipe input;
    Pipe output;
    Command produce(Stage("produce", {"--packet", "10"}), {input.Out(), -1, -1});
    Command node(Stage("node", {"--node", "1"}));
    Command consume(Stage("consume", {"--node", "2"}), {-1, output.In(), -1});
    input.CloseOut();
    output.CloseIn();
    const std::map<unsigned, pid_t> nodes{{0, produce.Pid()}, {1, node.Pid()}, {2, consume.Pid()}};
    WaitUntil([&] { return Nodes() == nodes; });

    input.Write("0123456789");
    EXPECT_EQ(output.Read(10), "0123456789");
    ExpectRefused("produce", 0, {"--packet", "10"});
    ExpectRefused("node", 1, {"--node", "1"});
    ExpectRefused("consume", 2, {"--node", "2", "--output", folder_.Path("precious"), "--unlink"});
    EXPECT_EQ(ReadFile(folder_.Path("precious")), "precious");
    EXPECT_EQ(Nodes(), nodes);

    input.Write("abcdefghij");
    input.CloseIn();
    EXPECT_EQ(output.Read(11), "abcdefghij");
    for (Command* const command : {&produce, &node, &consume}) {
        EXPECT_EQ(command->Wait().status, 0);
    }
    EXPECT_THAT(Nodes(), testing::IsEmpty());
}

TEST_F(NodeClaimTest, NodeThatSomebodyElseHoldsIsRefused) {
    (void)OpenRing({name_.Name(), 5000, 0, false, 0});
    const NodeClaim claim(name_.Name(), 3);
    ExpectRefused("node", 3, {"--node", "3"});
}

TEST_F(NodeClaimTest, NodeOfAKilledStageIsFreeAgain) {
    {
        Command killed(Stage("node", {"--node", "1"}));
        WaitUntil([&] { return Nodes().count(1) > 0; });
        killed.Signal(SIGKILL);
        EXPECT_EQ(killed.Wait().status, -1);
    }
    Command next(Stage("node", {"--node", "1"}));
    WaitUntil([&] { return Nodes().count(1) > 0; });
    next.Signal(SIGINT);
    EXPECT_EQ(next.Wait().status, 130);
}

TEST_F(NodeClaimTest, PipelineShowsWhichProcessIsWhichNode) {
    WriteFile(folder_.Path("input"), "");
    ASSERT_EQ(truncate(folder_.Path("input").c_str(), off_t{1} << 40U), 0);
    Command pipeline(Stage("pipeline", {"--input", folder_.Path("input"), "--output",
                                        folder_.Path("output"), "--packet", "64", "--nodes", "3"}));
    WaitUntil([&] { return Nodes().size() == 3; });
    for (const auto& [node, pid] : Nodes()) {
        EXPECT_EQ(pid, ChildNamed(pipeline.Pid(), "qev-node-" + std::to_string(node)));
    }
    pipeline.Signal(SIGINT);
    EXPECT_EQ(pipeline.Wait().status, 130);
}

}  // namespace
}  // namespace qel::test
