#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <utility>

#include "BlockHolder.h"
#include "Command.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

class BlockShow : public testing::Test {
protected:
    /// The record that the lock file holds.
    [[nodiscard]] SharedMemoryMetadata Record() const {
        const std::string content = ReadFile(name_.LockPath());
        SharedMemoryMetadata record;
        EXPECT_EQ(content.size(), 8 + sizeof record);
        std::memcpy(&record, content.data() + 8, sizeof record);
        return record;
    }

    void Forge(const SharedMemoryMetadata& record) const {
        std::string content(8 + sizeof record, '\0');
        content[0] = 1;
        std::memcpy(content.data() + 8, &record, sizeof record);
        WriteFile(name_.LockPath(), content);
    }

    /// A record that names descriptor `fd` of this process, and the file behind it.
    static SharedMemoryMetadata RecordOf(int fd, std::int64_t uid) {
        struct stat status {};
        EXPECT_EQ(fstat(fd, &status), 0);
        return {getpid(), fd, status.st_dev, status.st_ino, uid};
    }

    [[nodiscard]] std::string Head() const {
        return "block      " + name_.Name() + "\nlock file  " + name_.LockPath() + "\n";
    }
    static std::string Line(const SharedMemoryMetadata& record) {
        return "record     process " + std::to_string(record.pid) + ", descriptor " +
               std::to_string(record.fd) + ", device " + std::to_string(record.dev) + ", inode " +
               std::to_string(record.ino) + ", uid " + std::to_string(record.uid) + "\n";
    }
    /// This process as a user of the block.
    static std::string Self(const std::string& role) {
        std::string command = ReadFile("/proc/self/comm");
        command.pop_back();
        return std::to_string(getpid()) + " " + command + " (" + role + ")";
    }

    /// What the command shows, less the line on processes that are hidden from every user here.
    [[nodiscard]] std::string Shown(bool* hidden = nullptr) const {
        CommandResult result =
            RunQev({"block", "show", name_.Name()}, {-1, -1, -1, hidden != nullptr});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        const auto at = result.out.find("           processes hidden from this user: ");
        if (hidden != nullptr) {
            *hidden = at != std::string::npos;
        }
        return result.out.substr(0, at);
    }

    void ExpectShown(const std::string& text) const { EXPECT_EQ(Shown(), text); }

    void ExpectFailure(const std::string& line) const {
        const CommandResult result = RunQev({"block", "show", name_.Name()});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qev block show: " + line + "\n");
    }

    UniqueBlockName name_;
};

const std::string kStale =
    "creator    gone, its numbers are used by another: the record is stale\n";
const std::string kGone =
    "creator    gone: nobody can open the block until a writer makes it anew\n";
const std::string kNobody = "size       unknown\nopen by    nobody\n";

TEST_F(BlockShow, TellsRecordCreatorSizeAndWhoHasItOpen) {
    const SharedMemoryBlockWriter writer(name_.Name(), 4096);
    const SharedMemoryBlockReader reader(name_.Name());
    const std::string before = ReadFile(name_.LockPath());
    ExpectShown(Head() + Line(Record()) +
                "creator    alive\n"
                "size       4096 bytes\n"
                "sealed     no\n"
                "open by    " +
                Self("creator, writes") + "\n           " + Self("reads") + "\n");
    EXPECT_TRUE(ReadFile(name_.LockPath()) == before);
}

TEST_F(BlockShow, TakesNoLock) {
    SharedMemoryBlockWriter writer(name_.Name(), 1);
    writer.LockForWrite();
    ExpectShown(Head() + Line(Record()) +
                "creator    alive\nsize       1 bytes\nsealed     no\nopen by    " +
                Self("creator, writes") + "\n");
    writer.UnlockForWrite();
}

TEST_F(BlockShow, ShowsWhoStillHasABlockWhoseCreatorIsGone) {
    BlockHolder holder({"block", "write", name_.Name(), "--size", "12"});
    const SharedMemoryBlockReader reader(name_.Name());
    holder.Process().Signal(SIGINT);
    EXPECT_EQ(holder.Process().Wait().status, 0);
    ExpectShown(Head() + Line(Record()) + kGone +
                "size       12 bytes\nsealed     no\nopen by    " + Self("reads") + "\n");
}

TEST_F(BlockShow, SaysWhenNobodyIsLeft) {
    BlockHolder holder({"block", "write", name_.Name(), "--size", "12"});
    holder.Process().Signal(SIGKILL);
    EXPECT_EQ(holder.Process().Wait().status, -1);
    ExpectShown(Head() + Line(Record()) + kGone + kNobody);
}

TEST_F(BlockShow, RecordThatLeadsToAnotherFileIsStale) {
    TemporaryFolder folder;
    const std::string fifo = folder.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);  // whoever opened it would wait
    const int fd = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    SharedMemoryMetadata record = RecordOf(fd, 5);
    Forge(record);
    ExpectShown(Head() + Line(record) + kStale + kNobody);
    record.ino += 1;
    Forge(record);
    ExpectShown(Head() + Line(record) + kStale + kNobody);
    (void)close(fd);
}

TEST_F(BlockShow, MemoryOfAnotherBlockIsStale) {
    const int fd = memfd_create("another", MFD_CLOEXEC);
    const std::int64_t uid = 6;
    ASSERT_EQ(write(fd, &uid, sizeof uid), static_cast<ssize_t>(sizeof uid));
    const SharedMemoryMetadata record = RecordOf(fd, 5);
    Forge(record);
    ExpectShown(Head() + Line(record) + kStale + "size       0 bytes\nsealed     no\nopen by    " +
                Self("writes") + "\n");
    (void)close(fd);
}

TEST_F(BlockShow, ImpossibleRecordIsThatOfACreatorWhoIsGone) {
    for (const auto& [pid, fd] : {std::pair(-1, -1), std::pair(0, 0), std::pair(getpid(), -1),
                                  std::pair(getpid(), 1 << 30)}) {
        const SharedMemoryMetadata record{pid, fd, ~0ULL, ~0ULL, -1};
        Forge(record);
        ExpectShown(Head() + Line(record) + kGone + kNobody);
    }
}

TEST_F(BlockShow, LockFileWithoutARecordHasNone) {
    WriteFile(name_.LockPath(), "");
    ExpectShown(Head() + "record     none\n");
    WriteFile(name_.LockPath(), std::string(40, '\0'));
    ExpectShown(Head() + "record     none\n");
    WriteFile(name_.LockPath(), std::string(39, '\1'));
    ExpectShown(Head() + "record     none\n");
}

TEST_F(BlockShow, BlockThatNobodyEverMadeIsNotThere) {
    ExpectFailure("there is no block " + name_.Name());
    EXPECT_FALSE(Exists(name_.LockPath()));
}

TEST_F(BlockShow, LockFileThatIsNoFileIsReported) {
    ASSERT_EQ(mkfifo(name_.LockPath().c_str(), 0600), 0);
    ExpectFailure("cannot read " + name_.LockPath() + ": 29(Illegal seek)");
    ASSERT_EQ(unlink(name_.LockPath().c_str()), 0);
    ASSERT_EQ(mkdir(name_.LockPath().c_str(), 0700), 0);
    ExpectFailure("cannot read " + name_.LockPath() + ": 21(Is a directory)");
    ASSERT_EQ(rmdir(name_.LockPath().c_str()), 0);
    ASSERT_EQ(symlink("/dev/null", name_.LockPath().c_str()), 0);
    ExpectFailure("cannot read " + name_.LockPath() + ": 40(Too many levels of symbolic links)");
}

TEST_F(BlockShow, SaysWhatThisUserMayNotSee) {
    const SharedMemoryBlockWriter writer(name_.Name(), 4096);
    bool hidden = false;
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);  // hides this process
    const std::string shown = Shown(&hidden);
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    EXPECT_TRUE(hidden);
    EXPECT_EQ(shown, Head() + Line(Record()) +
                         "creator    unknown: its process may not be looked into by this user\n" +
                         kNobody);
}

}  // namespace
}  // namespace qel::test
