#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>

#include "Command.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

std::string ChecksumOf(const std::string& bytes) {
    std::array<char, 17> text{};
    (void)std::snprintf(text.data(), text.size(), "%016llx",
                        static_cast<unsigned long long>(XXH3_64bits(bytes.data(), bytes.size())));
    return text.data();
}

class PipelineTest : public testing::Test {
protected:
    /// Runs the pipeline over the input file with --json and checks all that every good run has.
    nlohmann::json GoodRun(const std::string& content, std::vector<std::string> options) {
        WriteFile(input_, content);
        const std::vector<std::string> common{"pipeline", "--input", input_,       "--output",
                                              output_,    "--name",  name_.Name(), "--json"};
        options.insert(options.begin(), common.begin(), common.end());
        const CommandResult result = RunQev(options);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_TRUE(ReadFile(output_) == content) << "the output differs";
        EXPECT_FALSE(Exists(name_.Path()));
        auto json = nlohmann::json::parse(result.out);
        EXPECT_EQ(json["status"], "ok");
        EXPECT_EQ(json["verified"], true);
        EXPECT_EQ(json["removed"], true);
        EXPECT_EQ(json["bytes"], content.size());
        for (const auto& node : json["nodes"]) {
            EXPECT_EQ(node["bytes"], content.size());
            EXPECT_EQ(node["xxh3"], ChecksumOf(content));
        }
        return json;
    }

    UniqueRingName name_;
    TemporaryFolder folder_;
    std::string input_ = folder_.Path("input");
    std::string output_ = folder_.Path("output");
};

class PipelineOfNodes : public PipelineTest,
                        public testing::WithParamInterface<std::tuple<unsigned, std::size_t>> {};

TEST_P(PipelineOfNodes, OutputIsTheInputAndEveryNodeSawAllOfIt) {
    const auto [nodes, length] = GetParam();
    const auto json = GoodRun(SomeBytes(length), {"--nodes", std::to_string(nodes), "--packet",
                                                  "4096", "--size", "65536"});
    ASSERT_EQ(json["nodes"].size(), nodes);
    for (unsigned node = 0; node < nodes; ++node) {
        const auto& entry = json["nodes"][node];
        EXPECT_EQ(entry["node"], node);
        EXPECT_EQ(entry["role"], node == 0 ? "producer" : node + 1 == nodes ? "sink" : "node");
        EXPECT_EQ(entry["packets"], (length + 4095) / 4096);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, PipelineOfNodes,
                         testing::Combine(testing::Values(2, 3, 4, 5),
                                          testing::Values(0, 1, 4096, 4097, 5000000)));

TEST_F(PipelineTest, SmallRingIsWrappedManyTimes) {
    const auto json = GoodRun(SomeBytes(100000), {"--packet", "50", "--size", "300"});
    EXPECT_GE(json["nodes"][4]["fillers"], 100);
    EXPECT_EQ(json["nodes"][1]["fillers"], json["nodes"][4]["fillers"]);
    EXPECT_EQ(json["nodes"][0]["fillers"], 0);
}

TEST_F(PipelineTest, LargestPacketOfARingPasses) {
    (void)GoodRun(SomeBytes(3000), {"--packet", "844", "--size", "1000"});
}

TEST_F(PipelineTest, PacketLimitIsKept) {
    const auto json =
        GoodRun(SomeBytes(20000), {"--packet", "100", "--size", "1000", "--max-frames", "1"});
    EXPECT_EQ(json["nodes"][4]["packets"], 200);
}

TEST_F(PipelineTest, EveryWaitModePassesTheFile) {
    for (const char* const mode : {"spin", "yield", "sleep", "adaptive"}) {
        (void)GoodRun(SomeBytes(1000), {"--nodes", "2", "--packet", "100", "--wait", mode});
    }
}

TEST_F(PipelineTest, SizesHaveUnits) {
    const auto json = GoodRun("x", {"--size", "1MiB", "--packet", "2KiB"});
    EXPECT_EQ(json["size"], 1U << 20U);
    EXPECT_EQ(json["packetSize"], 2048);
    EXPECT_EQ(json["name"], name_.Name());
}

TEST_F(PipelineTest, LongerOutputOfAnEarlierRunIsReplaced) {
    WriteFile(output_, SomeBytes(100000));
    (void)GoodRun(SomeBytes(10), {});
}

TEST_F(PipelineTest, SummaryTellsEachNodeAndTheVerdict) {
    WriteFile(input_, SomeBytes(1000));
    const CommandResult result =
        RunQev({"pipeline", "--input", input_, "--output", output_, "--nodes", "3", "--packet",
                "600", "--name", name_.Name(), "--size", "100000"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const std::string checksum = ChecksumOf(SomeBytes(1000));
    EXPECT_THAT(result.out, HasSubstr("3 processes on ring " + name_.Name() +
                                      " of 100000 bytes, packets of 600 bytes\n\n"));
    EXPECT_THAT(result.out, ContainsRegex("0 producer +2 +1000 +- .* " + checksum));
    EXPECT_THAT(result.out, ContainsRegex("1 node +2 +1000 +0 .* " + checksum));
    EXPECT_THAT(result.out, ContainsRegex("2 sink +2 +1000 +0 .* " + checksum));
    EXPECT_THAT(result.out,
                HasSubstr("\nverified: the output is the input, byte for byte (1000 bytes)\n"
                          "removed /dev/shm/" +
                          name_.Name() + ".shm\n"));
}

TEST_F(PipelineTest, NameIsMadeUpWhenNoneIsGiven) {
    WriteFile(input_, "x");
    Command command({"pipeline", "--input", input_, "--output", output_, "--json"});
    const std::string name = "qev-pipeline-" + std::to_string(command.Pid());
    EXPECT_EQ(nlohmann::json::parse(command.Wait().out)["name"], name);
}

TEST_F(PipelineTest, FullDiskIsAClearErrorAndLeavesNoObject) {
    WriteFile(input_, SomeBytes(100000));
    const CommandResult result = RunQev(
        {"pipeline", "--input", input_, "--output", "/dev/full", "--name", name_.Name(), "--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "qev pipeline: node 4: cannot write /dev/full: 28(No space left on device)\n");
    EXPECT_FALSE(Exists(name_.Path()));
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["status"], "failed");
    EXPECT_EQ(json["error"], "node 4: cannot write /dev/full: 28(No space left on device)");
    EXPECT_EQ(json["verified"], false);
}

TEST_F(PipelineTest, OutputThatCannotBeReadBackIsNotVerified) {
    WriteFile(input_, "x");
    const CommandResult result =
        RunQev({"pipeline", "--input", input_, "--output", "/dev/null", "--name", name_.Name()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev pipeline: /dev/null is not what went in\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(PipelineTest, RingThatHasNoRoomInMemoryIsAnErrorAndTouchesNothing) {
    WriteFile(input_, "x");
    WriteFile(output_, "precious");
    const CommandResult result = RunQev({"pipeline", "--input", input_, "--output", output_,
                                         "--name", name_.Name(), "--size", "1000000000000000000"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("qev pipeline: ring " + name_.Name() +
                                      ": cannot reserve 1000000000000000152 bytes for /" +
                                      name_.Name() + ".shm: "));
    EXPECT_EQ(Lines(result.err), 1);
    EXPECT_EQ(ReadFile(output_), "precious");
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST_F(PipelineTest, SummaryThatCannotBeWrittenIsAnError) {
    WriteFile(input_, "x");
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const CommandResult result =
        RunQev({"pipeline", "--input", input_, "--output", output_, "--name", name_.Name()},
               {-1, full, -1});
    (void)close(full);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev pipeline: cannot write to standard output\n");
}

TEST_F(PipelineTest, TerminalShowsALinePerNodeThatIsTakenAwayAgain) {
    WriteFile(input_, "");
    ASSERT_EQ(truncate(input_.c_str(), off_t{1} << 40U), 0);
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal == -1) {
        GTEST_SKIP() << "the system has no pseudo-terminals";
    }
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    const int side = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    Command command({"pipeline", "--input", input_, "--output", output_, "--name", name_.Name(),
                     "--nodes", "2", "--packet", "64", "--size", "4096"},
                    {-1, -1, side});
    (void)close(side);

    std::string shown;
    std::array<char, 4096> part{};
    bool stopped = false;
    for (ssize_t count = 1; count > 0; count = read(terminal, part.data(), part.size())) {
        shown.append(part.data(),
                     static_cast<std::size_t>(count == 1 && shown.empty() ? 0 : count));
        if (!stopped && shown.find("1 sink") != std::string::npos) {
            command.Signal(SIGINT);
            stopped = true;
        }
    }
    (void)close(terminal);
    EXPECT_EQ(command.Wait().status, 130);
    EXPECT_THAT(shown,
                ContainsRegex("0 producer +[0-9]+ pkt/s +[0-9.]+ MB/s \\[[#.]+\\] +[0-9]+ %"));
    EXPECT_THAT(shown, ContainsRegex("1 sink +[0-9]+ pkt/s"));
    EXPECT_THAT(shown, testing::EndsWith("\033[2A\r\033[J"));
    EXPECT_LE(shown.find("\r\n") - shown.find("0 producer"), 80U);
}

}  // namespace
}  // namespace qel::test
