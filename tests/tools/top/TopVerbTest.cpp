#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "BlockHolder.h"
#include "Command.h"
#include "LiveChain.h"
#include "Pipe.h"
#include "RingObject.h"
#include "RingUnderTest.h"
#include "SystemSemaphore.h"
#include "UniqueBlockName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Json = nlohmann::json;

std::vector<std::string> Top(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"top", "--interval", "0.1"});
    return arguments;
}

Json Figures(const std::vector<std::string>& arguments, const Streams& streams = {}) {
    const CommandResult result = RunQev(Top(arguments), streams);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Lines(result.out), 1);
    return Json::parse(result.out);
}

/// Others may look at the same objects.
std::vector<pid_t> PidsOf(const Json& users) {
    std::vector<pid_t> pids;
    for (const Json& user : users) {
        pids.push_back(user["pid"]);
    }
    return pids;
}

TEST(Top, TellsAsJsonWhatAChainDoes) {
    const LiveChain chain;
    Json ring;
    WaitUntil([&] {  // a slow machine may not let it move in so short a time
        ring = Figures({chain.Name(), "--json"})["rings"].at(0);
        return ring["moves"] == true && ring["nodes"][1]["bytesPerSecond"] > 0;
    });
    EXPECT_EQ(ring["name"], chain.Name());
    EXPECT_EQ(ring["size"], LiveChain::kSize);
    EXPECT_EQ(ring["state"], "live");
    EXPECT_EQ(ring["packetLimit"], 5);
    EXPECT_EQ(ring["largestRecord"], LiveChain::kPayload + kPacketHeaderSize);
    EXPECT_GT(ring["seconds"], 0.09);
    ASSERT_EQ(ring["nodes"].size(), 2U);
    const Json& writer = ring["nodes"][0];
    const Json& reader = ring["nodes"][1];
    EXPECT_EQ(writer["role"], "producer");
    EXPECT_EQ(reader["role"], "sink");
    EXPECT_EQ(writer["processes"].at(0)["pid"], chain.Writer());
    EXPECT_EQ(writer["processes"].at(0)["command"], LiveChain::kWriter);
    EXPECT_EQ(reader["processes"].at(0)["pid"], chain.Reader());
    EXPECT_TRUE(writer["latency"].is_null());
    EXPECT_GE(reader["latency"], 0);
    EXPECT_GT(reader["packetsPerSecond"], 0);
    EXPECT_GT(reader["bytes"], 0);
    // The test itself has the ring open and claims nothing.
    EXPECT_THAT(PidsOf(ring["others"]), Contains(getpid()));
}

TEST(Top, PrintsOnceTheSameAsText) {
    const LiveChain chain;
    const CommandResult result = RunQev(Top({chain.Name(), "--once"}));
    EXPECT_EQ(result.status, 0);
    std::istringstream text(result.out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
        EXPECT_LE(line.size(), 100U);
    }
    ASSERT_GE(lines.size(), 6U);
    EXPECT_THAT(lines[0], StartsWith("  # ROLE     PROCESS"));
    EXPECT_THAT(lines[1], StartsWith("  " + chain.Name() + " "));
    EXPECT_THAT(lines[2], StartsWith("  ["));
    EXPECT_THAT(lines[3], StartsWith("  0 producer " + std::to_string(chain.Writer())));
    EXPECT_THAT(lines[4], StartsWith("  1 sink     " + std::to_string(chain.Reader())));
    EXPECT_THAT(lines[5], StartsWith("  without a claim: "));
    EXPECT_THAT(lines[5], HasSubstr(" " + std::to_string(getpid()) + " "));
}

TEST(Top, ShowsBlocksAndSemaphoresThatAreNamed) {
    const UniqueBlockName block;
    const BlockHolder holder({"block", "write", block.Name(), "--size", "12"});
    const UniqueSemaphoreName slashed;
    const std::string semaphore = slashed.Name().substr(1);
    const SystemSemaphore units(semaphore, SystemSemaphore::IfMissing::Create);
    units.Post();
    units.Post();
    const Json seen = Figures({block.Name(), semaphore, "--json"});
    EXPECT_EQ(seen["rings"], Json::array());
    EXPECT_EQ(seen["blocks"].at(0)["name"], block.Name());
    EXPECT_EQ(seen["blocks"].at(0)["size"], 12);
    EXPECT_EQ(seen["blocks"].at(0)["state"], "live");
    EXPECT_EQ(seen["semaphores"].at(0)["name"], semaphore);
    EXPECT_EQ(seen["semaphores"].at(0)["value"], 2);
    EXPECT_EQ(seen["semaphores"].at(0)["waiting"], 0);
    EXPECT_THAT(PidsOf(seen["semaphores"].at(0)["users"]), Contains(getpid()));
}

TEST(Top, TellsTheStateOfARingThatHasNoFigures) {
    const UniqueRingName name;
    const RingObject object(name.Name(), 5000);
    const Json ring = Figures({name.Name(), "--json"})["rings"].at(0);
    EXPECT_EQ(ring["state"], "fresh");
    EXPECT_EQ(ring["sound"], false);
    EXPECT_FALSE(ring.contains("nodes"));
    EXPECT_THAT(RunQev(Top({name.Name(), "--once"})).out,
                HasSubstr("\n  fresh: nobody has opened it yet\n"));
}

TEST(Top, PrintsAsManyIntervalsAsItIsAskedFor) {
    const RingUnderTest ring;
    const CommandResult three = RunQev(Top({ring.Name(), "--json", "--count", "3"}));
    EXPECT_EQ(three.status, 0);
    EXPECT_EQ(Lines(three.out), 3);

    const Pipe out;
    Command endless(Top({ring.Name(), "--json", "--count", "0"}), {-1, out.In(), -1});
    for (int line = 0; line < 4; ++line) {
        EXPECT_THAT(out.ReadTo("\n"), HasSubstr(ring.Name()));
    }
    endless.Signal(SIGINT);
    EXPECT_EQ(endless.Wait().status, 130);
}

TEST(Top, SaysWhatIsHiddenFromThisUser) {
    const RingUnderTest ring;
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);  // hides this process
    Streams streams;
    streams.withoutPrivileges = true;
    const Json seen = Figures({ring.Name(), "--json"}, streams);
    const CommandResult text = RunQev(Top({ring.Name(), "--once"}), streams);
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    EXPECT_GE(seen["hiddenProcesses"], 1);
    EXPECT_THAT(PidsOf(seen["rings"].at(0)["others"]), Not(Contains(getpid())));
    EXPECT_THAT(text.out, HasSubstr("processes hidden: "));
}

TEST(Top, RefusesWhatCannotBe) {
    struct Row {
        std::vector<std::string> arguments;
        int status;
        const char* line;
    };
    for (const Row& row : {
             Row{{"top"},
                 2,
                 "standard input and output are to be a terminal; without one, --once or --json"},
             Row{{"top", "--once", "--interval", "0.05"},
                 2,
                 "--interval: 0.05 is not in range 0.1 to 3600"},
             Row{{"top", "--once", "--interval", "nan"},
                 2,
                 "--interval: nan is not in range 0.1 to 3600"},
             Row{{"top", "--count", "3"}, 2, "--count is for --once or --json"},
             Row{{"top", "--interval", "0.1", "--once", "qev-test-nothing"},
                 1,
                 "there is no ring, block or semaphore qev-test-nothing"},
         }) {
        const CommandResult result = RunQev(row.arguments);
        EXPECT_EQ(result.status, row.status);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qev top: " + std::string(row.line) + "\n");
    }
    EXPECT_EQ(RunQev({"top", "--once", "--sort", "size"}).status, 2);
}

}  // namespace
}  // namespace qel::test
