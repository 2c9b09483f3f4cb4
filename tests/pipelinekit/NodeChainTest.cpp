#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>
#include <stdexcept>

#include "NodeChain.h"

namespace qel::test {
namespace {

constexpr std::chrono::minutes kLong{1};

[[noreturn]] int WaitForever() {
    while (true) {
        (void)pause();
    }
}

/// Both ends of a pipe; the reading end tells when all processes with the writing end are gone.
struct Pipe {
    Pipe() { EXPECT_EQ(pipe(ends.data()), 0); }
    ~Pipe() {
        CloseWriting();
        (void)close(ends[0]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void CloseWriting() {
        if (ends[1] != -1) {
            (void)close(ends[1]);
            ends[1] = -1;
        }
    }
    void Write() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    /// A byte, or the end: 0.
    [[nodiscard]] ssize_t Read() const {
        char byte = 0;
        return read(ends[0], &byte, 1);
    }

    std::array<int, 2> ends{-1, -1};
};

std::map<std::size_t, NodeExit> WaitForAll(NodeChain& chain) {
    std::map<std::size_t, NodeExit> exits;
    while (chain.Running() != 0) {
        if (const auto end = chain.WaitForExit(kLong)) {
            exits.emplace(end->node, *end);
        }
    }
    return exits;
}

bool HasChildren() {
    return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

TEST(NodeChain, ReportsEachNodesExitStatusOnce) {
    NodeChain chain({[] { return 0; }, [] { return 3; }});
    const auto exits = WaitForAll(chain);
    ASSERT_EQ(exits.size(), 2U);
    EXPECT_TRUE(exits.at(0).Succeeded());
    EXPECT_EQ(exits.at(0).Text(), "exited with status 0");
    EXPECT_FALSE(exits.at(1).Succeeded());
    EXPECT_EQ(exits.at(1).Text(), "exited with status 3");
    EXPECT_FALSE(chain.WaitForExit(kLong));
    EXPECT_FALSE(HasChildren());
}

TEST(NodeChain, ReportsTheSignalThatKilledANode) {
    NodeChain chain({[] { return raise(SIGKILL); }});
    const auto end = WaitForAll(chain).at(0);
    EXPECT_TRUE(end.killed);
    EXPECT_FALSE(end.Succeeded());
    EXPECT_EQ(end.Text(), "was killed by signal 9 (Killed)");
}

TEST(NodeChain, NodeThatThrowsExitsWithAStatusOfItsOwn) {
    NodeChain chain({[]() -> int { throw std::runtime_error("no"); }, []() -> int { throw 1; }});
    const auto exits = WaitForAll(chain);
    EXPECT_EQ(exits.at(0).code, NodeChain::kThrew);
    EXPECT_EQ(exits.at(1).code, NodeChain::kThrew);
    EXPECT_FALSE(exits.at(1).killed);
}

TEST(NodeChain, WaitEndsWhenTheTimeIsUp) {
    NodeChain chain({WaitForever});
    EXPECT_FALSE(chain.WaitForExit(std::chrono::milliseconds(0)));
    EXPECT_EQ(chain.Running(), 1U);
}

TEST(NodeChain, KillReachesAllNodesThatRun) {
    NodeChain chain({WaitForever, WaitForever});
    chain.Kill(SIGKILL);
    const auto exits = WaitForAll(chain);
    EXPECT_EQ(exits.at(0).code, SIGKILL);
    EXPECT_EQ(exits.at(1).code, SIGKILL);
}

TEST(NodeChain, EndOfTheChainLeavesNoProcess) {
    Pipe pipe;
    {
        const NodeChain chain({WaitForever, WaitForever, [] { return 0; }});
        pipe.CloseWriting();
    }
    EXPECT_EQ(pipe.Read(), 0);
    EXPECT_FALSE(HasChildren());
}

TEST(NodeChain, NodesIgnoreTheSignalsThatATerminalSendsToTheGroup) {
    const Pipe ready;
    const Pipe go;
    NodeChain chain({[&] {
        ready.Write();
        return go.Read() == 1 ? 0 : 1;
    }});
    ASSERT_EQ(ready.Read(), 1);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        chain.Kill(signal);
    }
    go.Write();
    EXPECT_TRUE(WaitForAll(chain).at(0).Succeeded());
}

TEST(NodeChain, NodesDieWithTheProcessThatStartedThem) {
    Pipe alive;
    const pid_t starter = fork();
    if (starter == 0) {
        const Pipe ready;
        const auto live = [&]() -> int {
            ready.Write();
            WaitForever();
        };
        const NodeChain chain({live, live});
        if (ready.Read() == 1 && ready.Read() == 1) {
            _exit(0);  // as a crash would: without the end of the chain
        }
        _exit(1);
    }
    alive.CloseWriting();
    int status = -1;
    ASSERT_EQ(waitpid(starter, &status, 0), starter);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(alive.Read(), 0);
}

TEST(NodeChain, BufferedOutputIsWrittenOnceAndThatOfNodesIsNotLost) {
    testing::internal::CaptureStdout();
    std::printf("parent ");
    {
        NodeChain chain({[] { return std::printf("node ") < 0 ? 1 : 0; }});
        EXPECT_TRUE(WaitForAll(chain).at(0).Succeeded());
    }
    std::printf("end");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "parent node end");
}

TEST(NodeChain, SignalOfThisProcessEndsTheWait) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    const pid_t parent = getpid();
    NodeChain chain({[parent]() -> int {
        // Again and again, because the first may come before the wait has begun.
        while (kill(parent, SIGUSR1) == 0) {
            (void)usleep(100);
        }
        return 0;
    }});
    EXPECT_FALSE(chain.WaitForExit(std::chrono::hours(1)));
    chain.Kill(SIGKILL);
    (void)WaitForAll(chain);
    ASSERT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
}

}  // namespace
}  // namespace qel::test
