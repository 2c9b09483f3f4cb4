#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "Command.h"
#include "OpenRing.h"
#include "Pipe.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

class SingleStageTest : public testing::Test {
protected:
    [[nodiscard]] std::vector<std::string> Stage(const std::string& verb,
                                                 const std::vector<std::string>& options) const {
        std::vector<std::string> all{verb, "--name", name_.Name(), "--size", "5000"};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    UniqueRingName name_;
    TemporaryFolder folder_;
};

TEST_F(SingleStageTest, ProcessesStartedInAnyOrderMoveAStreamFromPipeToPipe) {
    const std::string content = SomeBytes(300000);
    WriteFile(folder_.Path("input"), content);
    const int input = open(folder_.Path("input").c_str(), O_RDONLY | O_CLOEXEC);
    Pipe output;
    Command consume(Stage("consume", {"--node", "3", "--sink"}), {-1, output.In(), -1});
    output.CloseIn();
    Command last(Stage("node", {"--node", "2"}));
    Command produce(Stage("produce", {"--packet", "700"}), {input, -1, -1});
    Command first(Stage("node", {"--node", "1"}));
    (void)close(input);

    EXPECT_TRUE(output.Read(content.size() + 1) == content);
    const std::string line =
        ": 429 packets, 300000 bytes, xxh3 [0-9a-f]+, .* MB/s, [0-9]+ fillers\n";
    for (auto* const command : {&produce, &first, &last, &consume}) {
        const CommandResult result = command->Wait();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, MatchesRegex("qev [a-z]+" + line));
    }
    EXPECT_TRUE(Exists(name_.Path())) << "the ring is left for the next stream";
}

TEST_F(SingleStageTest, RingThatIsLeftTakesTheNextStream) {
    WriteFile(folder_.Path("input"), SomeBytes(20000));
    const std::string output = folder_.Path("output");
    for (int stream = 0; stream < 3; ++stream) {
        Command consume(Stage("consume", {"--node", "1", "--output", output}));
        EXPECT_EQ(
            RunQev(Stage("produce", {"--packet", "700", "--input", folder_.Path("input")})).status,
            0);
        EXPECT_EQ(consume.Wait().status, 0);
        EXPECT_TRUE(ReadFile(output) == SomeBytes(20000));
    }
}

TEST_F(SingleStageTest, ConsumerRemovesTheRingAtTheEndOfTheStreamWhenAsked) {
    WriteFile(folder_.Path("input"), "x");
    EXPECT_EQ(RunQev(Stage("produce", {"--packet", "10", "--input", folder_.Path("input")})).status,
              0);
    EXPECT_TRUE(Exists(name_.Path()));
    const CommandResult result = RunQev(Stage("consume", {"--node", "1", "--unlink"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "x");
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST_F(SingleStageTest, SinkNodeDiscardsAndGivesTheSpaceBack) {
    WriteFile(folder_.Path("input"), SomeBytes(50000));
    Command sink(Stage("node", {"--node", "4", "--sink"}));
    Command third(Stage("node", {"--node", "3"}));
    Command second(Stage("node", {"--node", "2"}));
    Command first(Stage("node", {"--node", "1"}));
    EXPECT_EQ(
        RunQev(Stage("produce", {"--packet", "700", "--input", folder_.Path("input")})).status, 0);
    const CommandResult result = sink.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("qev node: 72 packets, 50000 bytes"));
}

TEST_F(SingleStageTest, InterruptedProducerEndsTheStreamForTheOthers) {
    Pipe input;
    Pipe output;
    Command produce(Stage("produce", {"--packet", "10"}), {input.Out(), -1, -1});
    Command consume(Stage("consume", {"--node", "1"}), {-1, output.In(), -1});
    output.CloseIn();
    input.Write("0123456789");
    EXPECT_EQ(output.Read(10), "0123456789");
    produce.Signal(SIGINT);
    const CommandResult produced = produce.Wait();
    EXPECT_EQ(produced.status, 130);
    EXPECT_THAT(produced.err, HasSubstr("1 packets, 10 bytes"));
    EXPECT_THAT(produced.err, testing::EndsWith("fillers; interrupted\n"));
    EXPECT_EQ(consume.Wait().status, 0);
}

TEST_F(SingleStageTest, ProducerWithoutReadersGivesUpWhenAskedTwice) {
    constexpr std::uint32_t kLimit = 1;
    const auto watcher = OpenRing({name_.Name(), 5000, 1, true, kLimit});
    WriteFile(folder_.Path("input"), SomeBytes(10000));
    Command produce(Stage("produce", {"--packet", "10", "--input", folder_.Path("input")}));
    WaitUntil([&] { return watcher->GetCurrentCapacity().numPackets == kLimit + 1; });
    produce.Signal(SIGTERM);
    produce.Signal(SIGINT);
    const CommandResult result = produce.Wait();
    EXPECT_THAT(result.status, testing::AnyOf(130, 143));  // both may be taken at once
    EXPECT_THAT(result.err, testing::EndsWith("; the stream did not end; interrupted\n"));
    EXPECT_EQ(watcher->GetCurrentCapacity().numPackets, kLimit + 1);
}

TEST_F(SingleStageTest, ConsumerWithoutAReaderSaysSoAndGivesTheSpaceBack) {
    const auto producer = OpenRing({name_.Name(), 5000, 0, false, 1});
    WriteFile(folder_.Path("input"), "x");
    Pipe output;
    output.CloseOut();
    Command consume(Stage("consume", {"--node", "1"}), {-1, output.In(), -1});
    EXPECT_EQ(RunQev(Stage("produce", {"--packet", "10", "--input", folder_.Path("input")})).status,
              0);
    const CommandResult result = consume.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev consume: cannot write standard output: 32(Broken pipe)\n");
    // Only the end mark is left: the packet that could not be written has gone back.
    EXPECT_EQ(producer->GetCurrentCapacity().numPackets, 1U);
}

TEST_F(SingleStageTest, ConsumerOnAFullDiskSaysSo) {
    WriteFile(folder_.Path("input"), "x");
    EXPECT_EQ(RunQev(Stage("produce", {"--packet", "10", "--input", folder_.Path("input")})).status,
              0);
    const CommandResult result =
        RunQev(Stage("consume", {"--node", "1", "--output", "/dev/full", "--unlink"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev consume: cannot write /dev/full: 28(No space left on device)\n");
    EXPECT_TRUE(Exists(name_.Path())) << "the stream did not end cleanly";
}

}  // namespace
}  // namespace qel::test
