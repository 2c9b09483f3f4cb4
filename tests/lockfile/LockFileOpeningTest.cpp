#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "LockFileFixture.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LockFileOpening : public LockFileTest {};

TEST_F(LockFileOpening, MakesAMissingFileOfFortyZeroBytes) {
    const OpenLockFile lock(path_);

    EXPECT_EQ(ReadFile(path_), std::string(40, '\0'));
    EXPECT_TRUE(lock.IsReadable());
    EXPECT_EQ(lock.SharedHolders(), 0);
    EXPECT_FALSE(lock.Exclusive());
    EXPECT_FALSE(lock.Process());
    EXPECT_THAT(Flocks(), IsEmpty());
    EXPECT_THAT(log_.Records(), IsEmpty());
}

TEST_F(LockFileOpening, LengthensAShortFileAndKeepsItsBytes) {
    WriteFile(path_, std::string(16, 'x'));

    const OpenLockFile lock(path_);

    EXPECT_EQ(ReadFile(path_), std::string(16, 'x') + std::string(24, '\0'));
    EXPECT_TRUE(lock.IsReadable());
}

TEST_F(LockFileOpening, CutsALongFile) {
    WriteFile(path_, std::string(100, 'x'));

    const OpenLockFile lock(path_);

    EXPECT_EQ(ReadFile(path_), std::string(40, 'x'));
    EXPECT_TRUE(lock.IsReadable());
}

TEST_F(LockFileOpening, TakesAForeignFileOfTheRightLengthAsItStands) {
    WriteFile(path_, std::string(40, 'x'));

    const OpenLockFile lock(path_);

    EXPECT_EQ(ReadFile(path_), std::string(40, 'x'));
    EXPECT_TRUE(lock.IsReadable());
    EXPECT_THAT(faults_.Calls("ftruncate"), IsEmpty());
    EXPECT_THAT(faults_.Calls("posix_fallocate"), IsEmpty());
}

TEST_F(LockFileOpening, WarnsOfAFileThatCannotBeOpenedAndLeavesTheReasonInErrno) {
    const std::string missing = "/tmp/qev-test-missing/" + name_.Name();

    const OpenLockFile lock(missing);

    EXPECT_EQ(errno, ENOENT);
    ExpectLogged(LogLevel::Warning, "LockFileBase", "Failed to open lock file: " + missing);
    EXPECT_FALSE(lock.IsReadable());
    EXPECT_EQ(lock.Descriptor(), -1);
    EXPECT_EQ(lock.File().Path(), "");
    EXPECT_EQ(lock.File().Data(), nullptr);
    EXPECT_EQ(lock.File().Length(), 0U);
}

TEST_F(LockFileOpening, LeavesTheReasonInErrnoWhateverTheLogDoes) {
    LogControl::SetSink([](const LogRecord& /*record*/) { errno = EBUSY; });
    errno = 0;

    const OpenLockFile lock("/tmp/qev-test-missing/" + name_.Name());

    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LockFileOpening, FollowsNoSymbolicLink) {
    ASSERT_EQ(::symlink("/dev/null", path_.c_str()), 0);

    const OpenLockFile lock(path_);

    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(lock.Descriptor(), -1);
}

TEST_F(LockFileOpening, SurvivesAFileThatCannotBeMapped) {
    WriteFile(path_, std::string(16, 'x'));
    faults_.FailNth("mmap", 1, ENOMEM);

    const OpenLockFile lock(path_);

    EXPECT_EQ(errno, ENOMEM);
    ExpectLogged(LogLevel::Warning, "LockFileBase", "Failed to open lock file: " + path_);
    EXPECT_EQ(HoldingsOf(path_), Holdings{});
}

TEST_F(LockFileOpening, FailsWhenTheFileCannotBeGivenItsLength) {
    for (const std::string operation : {"posix_fallocate", "ftruncate", "mmap"}) {
        SCOPED_TRACE(operation);
        ::unlink(path_.c_str());
        faults_.FailNth(operation, 1, ENOSPC);

        ExpectFails([this] { const OpenLockFile lock(path_); }, "LockFileIOBase",
                    "Failed to truncate lock file to correct length");
        EXPECT_EQ(HoldingsOf(path_), Holdings{});
    }
}

TEST_F(LockFileOpening, LeavesAFileAloneThatIsMappedNowhere) {
    WriteFile(path_, std::string(16, 'x'));
    faults_.AnswerNth("mmap", 1, 0);  // a mapping without an address

    OpenLockFile& lock = Make();

    EXPECT_EQ(lock.File().Length(), 16U);
    EXPECT_EQ(ReadFile(path_), std::string(16, 'x'));
    EXPECT_FALSE(lock.IsReadable());
    ExpectFails([&] { lock.LockShared(); }, "LockShared",
                "Attempted to lock invalid LockFile " + path_);
    ExpectFails([&] { lock.UnlockShared(); }, "UnlockShared",
                "Attempted to unlock invalid LockFile ");
}

TEST_F(LockFileOpening, BuildsNoRecordThatNobodyWants) {
    LogControl::SetThreshold(LogLevel::Error);
    const OpenLockFile unusable("/tmp/qev-test-missing/" + name_.Name());
    EXPECT_THAT(log_.Records(), IsEmpty());

    LogControl::SetThreshold(LogLevel::Critical);
    OpenLockFile& lock = Make();
    std::array<unsigned char, 32> record{};
    EXPECT_EQ(Thrown([&] { (void)lock.Read(record.data(), 32, 0); }),
              "Read called while not locked");
    EXPECT_THAT(log_.Records(), IsEmpty());
}

TEST_F(LockFileOpening, IsUndoneAtTheEndInReverse) {
    Make();
    faults_.ForgetCalls();

    lock_.reset();

    EXPECT_THAT(faults_.Calls(), ElementsAre("munmap(40)", "close(FILE)"));
    EXPECT_EQ(HoldingsOf(path_), Holdings{});
}

}  // namespace
}  // namespace qel::test
