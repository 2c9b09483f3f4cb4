#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "BlockHolder.h"
#include "Command.h"
#include "ObjectName.h"
#include "Pipe.h"
#include "SharedMemoryBlockWriter.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

using testing::EndsWith;

std::string Zeros(std::size_t count) {
    return std::string(count, '\0');
}

class BlockVerbs : public testing::Test {
protected:
    [[nodiscard]] std::vector<std::string> Block(const std::string& verb,
                                                 std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"block", verb, name_.Name()});
        return options;
    }

    [[nodiscard]] std::vector<std::string> WriteOf(const std::string& content,
                                                   const std::string& size) const {
        WriteFile(folder_.Path("input"), content);
        return Block("write", {"--size", size, "--input", folder_.Path("input")});
    }

    void ExpectContent(const std::string& content) const {
        const CommandResult result = RunQev(Block("read"));
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(result.out == content);
        EXPECT_EQ(result.err, "");
    }

    void ExpectFailure(const std::vector<std::string>& arguments, const std::string& line) const {
        const CommandResult result = RunQev(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, line + "\n");
    }

    UniqueBlockName name_;
    TemporaryFolder folder_;
};

TEST_F(BlockVerbs, WhatIsWrittenFromStandardInputIsReadWhileTheWriterHoldsTheBlock) {
    const std::string content = SomeBytes(100000);
    WriteFile(folder_.Path("input"), content);
    const int input = open(folder_.Path("input").c_str(), O_RDONLY | O_CLOEXEC);
    BlockHolder holder(Block("write", {"--size", "128KiB"}), input);
    (void)close(input);
    EXPECT_THAT(holder.Said(), EndsWith("qev block write: 100000 bytes in block " + name_.Name() +
                                        " of 131072; held until Ctrl-C\n"));
    ExpectContent(content + Zeros(31072));
    holder.Process().Signal(SIGINT);
    EXPECT_EQ(holder.Process().Wait().status, 0);
    ExpectFailure(Block("read"), "qev block read: block " + name_.Name() +
                                     ": failed to open shared memory: file does not exist");
}

TEST_F(BlockVerbs, HolderEndsInOrderOnEveryRequest) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        BlockHolder holder(WriteOf("x", "1"));
        holder.Process().Signal(signal);
        EXPECT_EQ(holder.Process().Wait().status, 0);
    }
}

TEST_F(BlockVerbs, InputMayFillTheBlockExactlyOrBeEmpty) {
    const BlockHolder full(WriteOf("12345678", "8"));
    ExpectContent("12345678");
    EXPECT_EQ(RunQev(WriteOf("", "8")).status, 0);
    ExpectContent(Zeros(8));
}

TEST_F(BlockVerbs, BlockThatIsThereKeepsItsSizeAndNothingOfItsContent) {
    SharedMemoryBlockWriter block(name_.Name(), 10);
    EXPECT_EQ(RunQev(WriteOf("long one", "10")).status, 0);
    ExpectContent("long one" + Zeros(2));
    const CommandResult result = RunQev(WriteOf("short", "5"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "qev block write: 5 bytes in block " + name_.Name() + " of 10\n");
    ExpectContent("short" + Zeros(5));
}

TEST_F(BlockVerbs, InputThatDoesNotFitABlockThatIsThereLeavesItAlone) {
    SharedMemoryBlockWriter block(name_.Name(), 10);
    EXPECT_EQ(RunQev(WriteOf("precious", "10")).status, 0);
    ExpectFailure(
        WriteOf(std::string(11, 'x'), "20"),
        "qev block write: block " + name_.Name() + " is there with 10 bytes, and the input has 11");
    ExpectContent("precious" + Zeros(2));
}

TEST_F(BlockVerbs, InputThatIsLongerThanItsBlockMakesNone) {
    for (const std::size_t length : {std::size_t{101}, std::size_t{1000000}}) {
        ExpectFailure(WriteOf(std::string(length, 'x'), "100"),
                      "qev block write: " + folder_.Path("input") +
                          " holds more than the 100 bytes of the block");
        EXPECT_FALSE(Exists(name_.LockPath()));
    }
}

TEST_F(BlockVerbs, ReadGoesToAFileThatIsReplaced) {
    const BlockHolder holder(WriteOf("content", "7"));
    const std::string output = folder_.Path("output");
    WriteFile(output, "something longer");
    const CommandResult result = RunQev(Block("read", {"--output", output}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(ReadFile(output), "content");
}

TEST_F(BlockVerbs, ReadThatFailsLeavesItsOutputAsItWas) {
    const std::string output = folder_.Path("output");
    WriteFile(output, "precious");
    ExpectFailure(Block("read", {"--output", output}),
                  "qev block read: there is no block " + name_.Name());
    EXPECT_EQ(ReadFile(output), "precious");
    EXPECT_FALSE(Exists(name_.LockPath()));
}

TEST_F(BlockVerbs, ReadOnAFullDiskSaysSo) {
    const BlockHolder holder(WriteOf("content", "7"));
    ExpectFailure(Block("read", {"--output", "/dev/full"}),
                  "qev block read: cannot write /dev/full: 28(No space left on device)");
}

TEST_F(BlockVerbs, WriteThatIsInterruptedInItsInputMakesNoBlock) {
    const Pipe input;
    input.Write("begin");
    Command write(Block("write", {"--size", "100"}), {input.Out(), -1, -1});
    WaitUntil([&] {
        int waiting = 0;
        EXPECT_EQ(ioctl(input.Out(), FIONREAD, &waiting), 0);
        return waiting == 0;
    });
    write.Signal(SIGINT);
    const CommandResult result = write.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "");
    EXPECT_FALSE(Exists(name_.LockPath()));
}

TEST_F(BlockVerbs, LongestNameWorks) {
    const std::string name =
        name_.Name() + std::string(kLongestBlockName - name_.Name().size(), 'n');
    {
        const BlockHolder holder({"block", "write", name, "--size", "3"});
        EXPECT_EQ(RunQev({"block", "read", name}).out, Zeros(3));
    }
    EXPECT_EQ(unlink(BlockLockPath(name).c_str()), 0);
}

/// True while the process waits for a lock of a file.
bool WaitsForLock(pid_t pid) {
    const std::string locks = ReadFile("/proc/locks");
    for (std::size_t at = 0; (at = locks.find("-> FLOCK", at)) != std::string::npos; ++at) {
        const std::string line = locks.substr(at, locks.find('\n', at) - at);
        if (line.find(" " + std::to_string(pid) + " ") != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST_F(BlockVerbs, WaitForALockCanBeInterrupted) {
    SharedMemoryBlockWriter block(name_.Name(), 10);
    block.LockForWrite();
    for (const auto& arguments : {Block("read"), WriteOf("x", "10")}) {
        Command command(arguments);
        WaitUntil([&] { return WaitsForLock(command.Pid()); });
        command.Signal(SIGINT);
        const CommandResult result = command.Wait();
        EXPECT_EQ(result.status, 130);
        EXPECT_EQ(result.out, "");
    }
    block.UnlockForWrite();
    ExpectContent(Zeros(10));
}

TEST_F(BlockVerbs, ReadThatNobodyTakesIsInterruptedAtOnce) {
    SharedMemoryBlockWriter block(name_.Name(), 1U << 20U);
    const Pipe output;
    Command read(Block("read"), {-1, output.In(), -1});
    EXPECT_EQ(output.Read(1).size(), 1U);  // it writes, and will have to wait
    WaitUntil([&] {
        int waiting = 0;
        EXPECT_EQ(ioctl(output.Out(), FIONREAD, &waiting), 0);
        return waiting > 60000;
    });
    read.Signal(SIGINT);
    EXPECT_EQ(read.Wait().status, 130);
}

TEST_F(BlockVerbs, ReadThroughAPipeThatDoesNotWaitIsWhole) {
    SharedMemoryBlockWriter block(name_.Name(), 1U << 20U);
    const Pipe output;
    ASSERT_EQ(fcntl(output.In(), F_SETFL, O_NONBLOCK), 0);
    Command read(Block("read"), {-1, output.In(), -1});
    EXPECT_TRUE(output.Read(1U << 20U) == Zeros(1U << 20U));
    EXPECT_EQ(read.Wait().status, 0);
}

TEST_F(BlockVerbs, HolderOutlivesItsTerminalWhenStartedSo) {
    const auto before = std::signal(SIGHUP, SIG_IGN);
    BlockHolder holder(WriteOf("x", "1"));
    (void)std::signal(SIGHUP, before);
    holder.Process().Signal(SIGHUP);
    ExpectContent("x");
    EXPECT_FALSE(holder.Process().HasEnded());
    holder.Process().Signal(SIGTERM);
    EXPECT_EQ(holder.Process().Wait().status, 0);
}

TEST_F(BlockVerbs, ReadLeavesALockFileWithoutARecordAlone) {
    for (const std::size_t length : {0U, 5000U}) {
        WriteFile(name_.LockPath(), Zeros(length));
        ExpectFailure(Block("read"), "qev block read: block " + name_.Name() +
                                         " was never made: its lock file holds no record");
        EXPECT_TRUE(ReadFile(name_.LockPath()) == Zeros(length));
    }
}

TEST_F(BlockVerbs, BlockOfACreatorThatIsHiddenIsNotReplaced) {
    const SharedMemoryBlockWriter block(name_.Name(), 10);
    const std::string before = ReadFile(name_.LockPath());
    const auto arguments = WriteOf("x", "10");
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);  // hides this process
    const CommandResult result = RunQev(arguments, {-1, -1, -1, /*withoutPrivileges=*/true});
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qev block write: block " + name_.Name() +
                              ": its creator may not be looked into by this user\n");
    EXPECT_TRUE(ReadFile(name_.LockPath()) == before);
}

class BlockVerbsWithoutStandardStreams : public BlockVerbs {
protected:
    /// Runs the command with `closed` streams, such as "2>&-".
    [[nodiscard]] static int Run(const std::vector<std::string>& arguments,
                                 const std::string& closed) {
        std::string line = QEV_COMMAND;
        for (const std::string& argument : arguments) {
            line += " '" + argument + "'";
        }
        const int status = std::system((line + " " + closed).c_str());  // NOLINT(cert-env33-c)
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST_F(BlockVerbsWithoutStandardStreams, MessagesDoNotGoIntoTheBlocksFiles) {
    SharedMemoryBlockWriter block(name_.Name(), 10);
    const std::string before = ReadFile(name_.LockPath());
    EXPECT_EQ(Run(WriteOf("content", "10"), "<&- >&- 2>&-"), 0);
    EXPECT_TRUE(ReadFile(name_.LockPath()) == before);
    ExpectContent("content" + Zeros(3));
}

TEST_F(BlockVerbsWithoutStandardStreams, OutputFileIsReplacedAllTheSame) {
    SharedMemoryBlockWriter block(name_.Name(), 3);
    const std::string output = folder_.Path("output");
    WriteFile(output, "something longer");
    EXPECT_EQ(Run(Block("read", {"--output", output}), ">&-"), 0);
    EXPECT_TRUE(ReadFile(output) == Zeros(3));
}

TEST_F(BlockVerbsWithoutStandardStreams, UseOfAClosedStreamIsRefused) {
    SharedMemoryBlockWriter block(name_.Name(), 3);
    EXPECT_EQ(Run(Block("write", {"--size", "3"}), "<&- 2>/dev/null"), 2);
    EXPECT_EQ(Run(Block("read"), ">&- 2>/dev/null"), 2);
    EXPECT_EQ(Run(Block("show"), ">&- 2>/dev/null"), 1);
}

}  // namespace
}  // namespace qel::test
