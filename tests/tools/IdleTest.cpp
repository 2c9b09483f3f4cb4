#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Command.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

std::string Proc(pid_t pid, const char* file) {
    return ReadFile("/proc/" + std::to_string(pid) + "/" + file);
}

/// How often a process has given up its core by itself.
std::uint64_t SleepsOf(pid_t pid) {
    const std::string status = Proc(pid, "status");
    const std::string label = "\nvoluntary_ctxt_switches:";
    const auto at = status.find(label);
    return at == std::string::npos ? 0 : std::strtoull(&status[at + label.size()], nullptr, 10);
}

/// Nanoseconds that a process has spent on a core.
std::uint64_t CoreTimeOf(pid_t pid) {
    return std::strtoull(Proc(pid, "schedstat").c_str(), nullptr, 10);
}

class IdleStage : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(IdleStage, SleepsMostOfTheTimeAndEndsCleanlyWhenInterrupted) {
    constexpr std::uint64_t kWarmUp = 100;
    constexpr std::uint64_t kSleeps = 200;
    constexpr std::uint64_t kMostPerSleep = 500'000;  // ns, of a sleep that lasts 1'000'000
    const UniqueRingName name;
    std::vector<std::string> arguments = GetParam();
    arguments.insert(arguments.end(), {"--name", name.Name(), "--size", "5000"});
    Command stage(arguments);
    // A stage that never sleeps does not get past these waits.
    WaitUntil([&] { return SleepsOf(stage.Pid()) >= kWarmUp; });
    const std::uint64_t before = CoreTimeOf(stage.Pid());
    WaitUntil([&] { return SleepsOf(stage.Pid()) >= kWarmUp + kSleeps; });
    EXPECT_LT(CoreTimeOf(stage.Pid()) - before, kSleeps * kMostPerSleep);

    stage.Signal(SIGINT);
    const CommandResult result = stage.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_THAT(result.err, testing::EndsWith("0 fillers; the stream did not end; interrupted\n"));
    EXPECT_TRUE(Exists(name.Path()));
}

INSTANTIATE_TEST_SUITE_P(Verbs, IdleStage,
                         testing::Values(std::vector<std::string>{"consume", "--node", "1"},
                                         std::vector<std::string>{"node", "--node", "1"}));

}  // namespace
}  // namespace qel::test
