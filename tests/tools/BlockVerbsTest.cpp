#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
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

TEST_F(BlockVerbs, WaitForALockCanBeInterrupted) {
    SharedMemoryBlockWriter block(name_.Name(), 10);
    block.LockForWrite();
    for (const auto& arguments : {Block("read"), WriteOf("x", "10")}) {
        Command command(arguments);
        // It ends by the first signal that comes after its preparations; the status tells which.
        WaitUntil([&] {
            if (!command.HasEnded()) {
                command.Signal(SIGINT);
            }
            return command.HasEnded();
        });
        EXPECT_THAT(command.Wait().status, testing::AnyOf(130, -1));
    }
    block.UnlockForWrite();
}

}  // namespace
}  // namespace qel::test
