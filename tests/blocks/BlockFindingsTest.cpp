// Calls that succeed, on the way to a block, and find something else than they should.

#include <sys/stat.h>

#include "FaultyBlockFixture.h"

namespace qel::test {
namespace {

/// What fstat is made to find in the memory file, and what comes of it.
struct Finding {
    const char* name;
    void (*edit)(struct stat&);
    const char* text;
};

std::ostream& operator<<(std::ostream& out, const Finding& finding) {
    return out << finding.name;
}

void SetType(struct stat& status, mode_t type) {
    status.st_mode = (status.st_mode & ~static_cast<mode_t>(S_IFMT)) | type;
}

class OpeningWhatLooksLike : public FaultyBlockTest,
                             public ::testing::WithParamInterface<Finding> {};

TEST_P(OpeningWhatLooksLike, IsDecidedByWhatFstatFinds) {
    const auto creator = Creator();
    const Holdings before = Holding();
    faults_.EditNthFstat(2, GetParam().edit);

    EXPECT_EQ(OpenerFailure(), GetParam().text);

    EXPECT_EQ(Holding(), before);
    EXPECT_EQ(Lock(), Held::No);
}

constexpr const char* kAccepted = "nothing thrown";
constexpr const char* kNotRegular =
    "failed to open shared memory: shared memory file is not of regular type, assuming stale file "
    "descriptor";
constexpr const char* kAnotherFile =
    "failed to open shared memory: shared memory file properties do not match lock file metadata, "
    "assuming stale file descriptor";

INSTANTIATE_TEST_SUITE_P(
    It, OpeningWhatLooksLike,
    ::testing::Values(
        Finding{"ADirectory", [](struct stat& status) { SetType(status, S_IFDIR); }, kNotRegular},
        Finding{"ABlockDevice", [](struct stat& status) { SetType(status, S_IFBLK); }, kNotRegular},
        Finding{"AFifo", [](struct stat& status) { SetType(status, S_IFIFO); }, kNotRegular},
        // Their types contain the one bit that is looked at.
        Finding{"ASocket", [](struct stat& status) { SetType(status, S_IFSOCK); }, kAccepted},
        Finding{"ALink", [](struct stat& status) { SetType(status, S_IFLNK); }, kAccepted},
        Finding{"ADirectoryOfAnotherInode",
                [](struct stat& status) {
                    SetType(status, S_IFDIR);
                    ++status.st_ino;
                },
                kNotRegular},
        Finding{"AnotherInode", [](struct stat& status) { ++status.st_ino; }, kAnotherFile},
        Finding{"AnotherDevice", [](struct stat& status) { ++status.st_dev; }, kAnotherFile},
        Finding{"AnotherDeviceOfNoSize",
                [](struct stat& status) {
                    ++status.st_dev;
                    status.st_size = -1;
                },
                kAnotherFile},
        Finding{"ANegativeSize", [](struct stat& status) { status.st_size = -1; },
                "failed to open shared memory: shared memory size is invalid"},
        Finding{"NoBytes", [](struct stat& status) { status.st_size = 0; },
                "failed to open shared memory: shared memory is too small"},
        Finding{"SevenBytes", [](struct stat& status) { status.st_size = 7; },
                "failed to open shared memory: shared memory is too small"},
        Finding{"EightBytes", [](struct stat& status) { status.st_size = 8; }, kAccepted}),
    [](const auto& finding) { return finding.param.name; });

class BlockFindings : public FaultyBlockTest {};

TEST_F(BlockFindings, AShortReadOfTheUidIsAFailedOne) {
    const auto creator = Creator();
    for (const long length : {0L, 7L}) {
        faults_.AnswerNth("pread", 1, length);
        EXPECT_EQ(OpenerFailure(),
                  "failed to open shared memory: failed to read metadata from shared memory");
    }
}

TEST_F(BlockFindings, ANewMemoryFileThatIsNotRegularIsRefused) {
    const Holdings before = HoldingsOf("");
    const int lock = NextDescriptor();
    faults_.EditNthFstat(2, [](struct stat& status) { SetType(status, S_IFCHR); });

    EXPECT_EQ(CreatorFailure(),
              "failed to create shared memory: fstat returned non-regular file for fd:" +
                  std::to_string(lock + 1) + " name:" + name_.MemoryName());

    EXPECT_EQ(HoldingsOf("").descriptors, before.descriptors);
    EXPECT_EQ(Holding(), Holdings{});
    EXPECT_EQ(ReadFile(lockPath_), std::string(40, '\0'));
}

TEST_F(BlockFindings, OfANewMemoryFileTypeOnlyOneBitIsLookedAt) {
    faults_.EditNthFstat(2, [](struct stat& status) { SetType(status, S_IFSOCK); });

    EXPECT_EQ(CreatorFailure(), "nothing thrown");
}

TEST_F(BlockFindings, ALockFileThatCannotBeOpenedIsReportedWithItsErrno) {
    const auto failure = [](const std::string& name) {
        return Thrown(
            [&name] { const SharedMemoryBlock block(std::make_shared<Sys>(), name, true, 10); });
    };
    EXPECT_EQ(failure("qev-test-missing/" + name_.Name()),
              "LockFile could not be opened2(No such file or directory)");
    EXPECT_EQ(failure(std::string(300, 'x')), "LockFile could not be opened36(File name too long)");
    ASSERT_EQ(::symlink("/dev/null", lockPath_.c_str()), 0);
    EXPECT_EQ(CreatorFailure(),
              "LockFile could not be opened40(Too many levels of symbolic links)");
    ASSERT_EQ(::unlink(lockPath_.c_str()), 0);
    ASSERT_EQ(::mkfifo(lockPath_.c_str(), 0600), 0);
    EXPECT_EQ(OpenerFailure(), "LockFile could not be opened22(Invalid argument)");
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(BlockFindings, ALockFileOfTheWrongLengthIsRepaired) {
    WriteFile(lockPath_, std::string(16, '\0'));
    EXPECT_EQ(CreatorFailure(), "nothing thrown");
    EXPECT_EQ(ReadFile(lockPath_).size(), 40U);

    WriteFile(lockPath_, std::string(100, '\0'));
    EXPECT_EQ(OpenerFailure(),
              "failed to open shared memory: failed to read lockFile to get metadata");
    EXPECT_EQ(ReadFile(lockPath_).size(), 40U);
}

}  // namespace
}  // namespace qel::test
