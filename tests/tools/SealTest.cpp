#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "BlockHolder.h"
#include "Command.h"
#include "Pipe.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 20000;

class SealTest : public testing::Test {
protected:
    [[nodiscard]] SharedMemoryMetadata Record() const {
        SharedMemoryMetadata record;
        std::memcpy(&record, ReadFile(name_.LockPath()).data() + 8, sizeof record);
        return record;
    }

    [[nodiscard]] CommandResult Seal(const Streams& streams = {}) const {
        return RunQev({"seal", name_.Name()}, streams);
    }

    void ExpectSaid(const CommandResult& result, const std::string& text) const {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "block " + name_.Name() + " " + text + "\n");
        EXPECT_EQ(result.err, "");
    }

    void ExpectRefused(const CommandResult& result, const std::string& reason) const {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qev seal: " + reason + "\n");
    }

    [[nodiscard]] std::string Shown() const { return RunQev({"block", "show", name_.Name()}).out; }

    UniqueBlockName name_;
};

/// As somebody does who cuts a block by mistake.
bool Cut(const SharedMemoryMetadata& record, off_t length) {
    const int fd = open(BlockMemoryPath(record.pid, record.fd).c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_NE(fd, -1);
    const bool done = ftruncate(fd, length) == 0;
    EXPECT_TRUE(done || errno == EPERM);
    (void)close(fd);
    return done;
}

/// A process that has opened the block, and reads all of it when it is told to.
class ReaderProcess {
public:
    explicit ReaderProcess(const std::string& block) : pid_(fork()) {
        if (pid_ == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            (void)signal(SIGBUS, SIG_DFL);
            _exit(Live(block));
        }
        EXPECT_EQ(isReady_.Read(1), "!");
    }
    ~ReaderProcess() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
        }
    }
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;

    /// @return how the process ended
    [[nodiscard]] int ReadAll() {
        go_.Write("!");
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        return status;
    }

private:
    int Live(const std::string& name) const {
        SharedMemoryBlockReader block(name);
        isReady_.Write("!");
        (void)go_.Read(1);
        block.Lock();
        const auto zeros = std::count(block.GetData(), block.GetData() + block.Size(), 0);
        block.Unlock();
        return zeros == static_cast<long>(kSize) ? 0 : 1;
    }

    Pipe isReady_;
    Pipe go_;
    pid_t pid_;
};

TEST_F(SealTest, SealedBlockCannotBeCutAndReadersLive) {
    const SharedMemoryBlockWriter writer(name_.Name(), kSize);
    ReaderProcess reader(name_.Name());
    ExpectSaid(Seal(), "is sealed against shrinking");
    EXPECT_FALSE(Cut(Record(), 8));
    EXPECT_EQ(reader.ReadAll(), 0);
}

TEST_F(SealTest, BlockWithoutASealIsCutAndItsReadersDie) {
    const SharedMemoryBlockWriter writer(name_.Name(), kSize);
    ReaderProcess reader(name_.Name());
    EXPECT_TRUE(Cut(Record(), 8));
    const int status = reader.ReadAll();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGBUS);
}

TEST_F(SealTest, SealedBlockIsUsedAsBefore) {
    BlockHolder holder({"block", "write", name_.Name(), "--size", "12"});
    ExpectSaid(Seal(), "is sealed against shrinking");
    TemporaryFolder folder;
    WriteFile(folder.Path("input"), "content");
    EXPECT_EQ(
        RunQev({"block", "write", name_.Name(), "--size", "12", "--input", folder.Path("input")})
            .status,
        0);
    EXPECT_EQ(RunQev({"block", "read", name_.Name()}).out, std::string("content\0\0\0\0\0", 12));
    holder.Process().Signal(SIGINT);
    EXPECT_EQ(holder.Process().Wait().status, 0);
}

TEST_F(SealTest, IsSaidWhenItIsThereAlreadyAndByShow) {
    const SharedMemoryBlockWriter writer(name_.Name(), kSize);
    EXPECT_THAT(Shown(), testing::HasSubstr("\nsealed     no\n"));
    ExpectSaid(Seal(), "is sealed against shrinking");
    EXPECT_THAT(Shown(), testing::HasSubstr("\nsealed     against shrinking\n"));
    ExpectSaid(Seal(), "is sealed against shrinking already");
}

TEST_F(SealTest, BlockThatIsNotThereIsRefused) {
    ExpectRefused(Seal(), "there is no block " + name_.Name());
    EXPECT_FALSE(Exists(name_.LockPath()));
    WriteFile(name_.LockPath(), std::string(40, '\0'));
    ExpectRefused(Seal(),
                  "block " + name_.Name() + ": was never made: its lock file holds no record");
}

TEST_F(SealTest, BlockWhoseCreatorIsGoneIsRefused) {
    BlockHolder holder({"block", "write", name_.Name(), "--size", "12"});
    holder.Process().Signal(SIGINT);
    EXPECT_EQ(holder.Process().Wait().status, 0);
    ExpectRefused(Seal(), "block " + name_.Name() +
                              ": its creator is gone: nobody can open the block until a writer "
                              "makes it anew");
}

TEST_F(SealTest, AnotherFileBehindTheRecordIsRefusedAndNotSealed) {
    const int fd = memfd_create("another", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(ftruncate(fd, kSize), 0);
    struct stat status {};
    ASSERT_EQ(fstat(fd, &status), 0);
    const SharedMemoryMetadata record{getpid(), fd, status.st_dev, status.st_ino, 5};
    std::string content(8 + sizeof record, '\0');
    content[0] = 1;
    std::memcpy(content.data() + 8, &record, sizeof record);
    WriteFile(name_.LockPath(), content);
    ExpectRefused(Seal(), "block " + name_.Name() +
                              ": its creator is gone, its numbers are used by another: the record "
                              "is stale");
    EXPECT_EQ(fcntl(fd, F_GET_SEALS), 0);
    (void)close(fd);
}

TEST_F(SealTest, BlockOfAProcessThatMayNotBeLookedIntoIsRefused) {
    const SharedMemoryBlockWriter writer(name_.Name(), kSize);
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);  // hides this process
    const CommandResult result = Seal({-1, -1, -1, true});
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    ExpectRefused(result, "block " + name_.Name() +
                              ": its creator is unknown: its process may not be looked into by "
                              "this user");
    EXPECT_EQ(fcntl(Record().fd, F_GET_SEALS), 0);
}

TEST_F(SealTest, BlockThatMayNotBeWrittenIsRefused) {
    constexpr bool kWithoutPrivileges = true;
    BlockHolder holder({"block", "write", name_.Name(), "--size", "12"}, -1, kWithoutPrivileges);
    const SharedMemoryMetadata record = Record();
    ASSERT_EQ(chmod(BlockMemoryPath(record.pid, record.fd).c_str(), 0444), 0);
    ExpectRefused(Seal({-1, -1, -1, true}), "block " + name_.Name() + ": cannot open " +
                                                BlockMemoryPath(record.pid, record.fd) +
                                                " to write: 13(Permission denied)");
}

TEST_F(SealTest, BlockThatIsSealedAgainstSealsIsRefused) {
    const SharedMemoryBlockWriter writer(name_.Name(), kSize);
    ASSERT_EQ(fcntl(Record().fd, F_ADD_SEALS, F_SEAL_SEAL), 0);
    ExpectRefused(Seal(), "block " + name_.Name() + ": it is sealed against further seals");
    EXPECT_TRUE(Cut(Record(), 8));
}

}  // namespace
}  // namespace qel::test
