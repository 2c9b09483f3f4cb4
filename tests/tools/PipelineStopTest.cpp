#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "Command.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

/// A pipeline whose input never ends in a test's time, so that it can be stopped at leisure.
class PipelineStopTest : public testing::Test {
protected:
    void SetUp() override {
        WriteFile(input_, "");
        ASSERT_EQ(truncate(input_.c_str(), off_t{1} << 40U), 0);
    }

    [[nodiscard]] std::vector<std::string> Arguments() const {
        return {"pipeline",   "--input", input_,     "--output", output_,  "--name",
                name_.Name(), "--json",  "--packet", "64",       "--size", "4096"};
    }

    void WaitUntilItFlows() const {
        WaitUntil([this] {
            struct stat status {};
            return stat(output_.c_str(), &status) == 0 && status.st_size > 0;
        });
    }

    void ExpectCleanEnd(const CommandResult& result, int status) const {
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.err, "");
        EXPECT_FALSE(Exists(name_.Path()));
        const auto json = nlohmann::json::parse(result.out);
        EXPECT_EQ(json["status"], "interrupted");
        EXPECT_EQ(json["verified"], true);
        struct stat written {};
        ASSERT_EQ(stat(output_.c_str(), &written), 0);
        EXPECT_GT(written.st_size, 0);
        for (const auto& node : json["nodes"]) {
            EXPECT_EQ(node["bytes"], written.st_size) << "the chain did not run empty";
        }
    }

    UniqueRingName name_;
    TemporaryFolder folder_;
    std::string input_ = folder_.Path("input");
    std::string output_ = folder_.Path("output");
};

TEST_F(PipelineStopTest, CtrlCOnATerminalLetsTheChainRunEmpty) {
    Command command(Arguments());
    WaitUntilItFlows();
    command.SignalGroup(SIGINT);
    ExpectCleanEnd(command.Wait(), 130);
}

TEST_F(PipelineStopTest, TerminationOfTheCommandAloneDoesTheSame) {
    Command command(Arguments());
    WaitUntilItFlows();
    command.Signal(SIGTERM);
    ExpectCleanEnd(command.Wait(), 143);
}

TEST_F(PipelineStopTest, OutputThatSomebodyElseChangesIsNotVerified) {
    Command command(Arguments());
    WaitUntilItFlows();
    const int output = open(output_.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(pwrite(output, "x", 1, 0), 1);
    (void)close(output);
    command.Signal(SIGINT);
    const CommandResult result = command.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev pipeline: " + output_ + " is not what went in\n");
    EXPECT_EQ(nlohmann::json::parse(result.out)["verified"], false);
}

TEST_F(PipelineStopTest, SecondRequestKillsNodesThatHang) {
    Command command(Arguments());
    WaitUntilItFlows();
    ASSERT_EQ(kill(ChildNamed(command.Pid(), "qev-node-1"), SIGSTOP), 0);
    command.Signal(SIGINT);
    command.Signal(SIGTERM);
    const CommandResult result = command.Wait();
    EXPECT_THAT(result.status, testing::AnyOf(130, 143));  // both may be taken at once
    EXPECT_EQ(result.err, "qev pipeline: interrupted twice: the nodes were killed\n");
    EXPECT_EQ(nlohmann::json::parse(result.out)["status"], "failed");
    EXPECT_FALSE(Exists(name_.Path()));
}

class PipelineKilledNode : public PipelineStopTest, public testing::WithParamInterface<int> {};

TEST_P(PipelineKilledNode, IsNamedTheOthersAreStoppedAndTheObjectIsRemoved) {
    Command command(Arguments());
    WaitUntilItFlows();
    std::array<pid_t, 5> nodes{};
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        nodes[node] = ChildNamed(command.Pid(), "qev-node-" + std::to_string(node));
    }
    const auto victim = static_cast<std::size_t>(GetParam());
    ASSERT_EQ(kill(nodes[victim], SIGKILL), 0);
    const CommandResult result = command.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev pipeline: node " + std::to_string(victim) + " (process " +
                              std::to_string(nodes[victim]) +
                              ") was killed by signal 9 (Killed); the others were stopped\n");
    EXPECT_FALSE(Exists(name_.Path()));
    for (const pid_t node : nodes) {
        EXPECT_EQ(kill(node, 0), -1) << "node " << node << " is still there";
    }
}

INSTANTIATE_TEST_SUITE_P(EachNode, PipelineKilledNode, testing::Values(0, 1, 2, 3, 4));

TEST_F(PipelineStopTest, NodesDieWithTheCommand) {
    Command command(Arguments());
    WaitUntilItFlows();
    const pid_t node = ChildNamed(command.Pid(), "qev-node-2");
    command.Signal(SIGKILL);
    EXPECT_EQ(command.Wait().status, -1);
    WaitUntil([node] { return ReadFile("/proc/" + std::to_string(node) + "/cmdline").empty(); });
}

}  // namespace
}  // namespace qel::test
