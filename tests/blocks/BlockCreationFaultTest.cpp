// Blocks whose system calls are refused one after the other, in each of the ways to make a block.

#include <cerrno>
#include <functional>

#include "FaultyBlockFixture.h"

namespace qel::test {
namespace {

/// One refused call and what comes of it. In the text, {memory} and {lock} stand for the numbers of
/// the descriptors, {file} for the announced link, {path} for the lock file.
struct Row {
    const char* operation;
    int nth;
    int error;
    const char* text;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.operation << " " << row.nth;
}

std::string RowName(const ::testing::TestParamInfo<Row>& info) {
    return std::string(info.param.operation) + std::to_string(info.param.nth);
}

class FailingBlock : public FaultyBlockTest, public ::testing::WithParamInterface<Row> {
protected:
    /// The row's text, for a block that is made next.
    [[nodiscard]] std::string Text() const {
        const int lock = NextDescriptor();
        const int held = ::dup(0);
        const int memory = NextDescriptor();
        ::close(held);
        std::string text = GetParam().text;
        for (const auto& [mark, value] :
             {std::pair<std::string, std::string>{"{memory}", std::to_string(memory)},
              {"{lock}", std::to_string(lock)},
              {"{file}", AnnouncedPath(Record())},
              {"{name}", name_.MemoryName()},
              {"{path}", lockPath_}}) {
            if (const auto at = text.find(mark); at != std::string::npos) {
                text.replace(at, mark.size(), value);
            }
        }
        return text;
    }
    /// `make` fails with the row's text when the row's call is refused, leaves nothing behind, and
    /// works when it is done again.
    void ExpectFailure(const std::function<std::unique_ptr<SharedMemoryBlock>()>& make) {
        const std::string text = Text();
        const Holdings before = Holding();
        const Holdings all = HoldingsOf("");
        faults_.FailNth(GetParam().operation, GetParam().nth, GetParam().error);

        EXPECT_EQ(Thrown([&] { (void)make(); }), text);

        EXPECT_EQ(Holding(), before);
        EXPECT_EQ(HoldingsOf("").descriptors, all.descriptors);
        if (::access(lockPath_.c_str(), F_OK) == 0) {
            EXPECT_EQ(Lock(), Held::No);
        }
        EXPECT_EQ(make()->Size(), 1000U);
    }
};

class OpeningForReading : public FailingBlock {};

TEST_P(OpeningForReading, FailsWithTheReasonAndLeavesNothingBehind) {
    const auto creator = Creator();

    ExpectFailure([this] { return Opener(); });
}

INSTANTIATE_TEST_SUITE_P(
    At, OpeningForReading,
    ::testing::Values(
        Row{"open", 1, EMFILE, "LockFile could not be opened24(Too many open files)"},
        Row{"fstat", 1, EIO, "LockFile could not be opened5(Input/output error)"},
        Row{"mmap", 1, ENOMEM, "LockFile could not be opened12(Cannot allocate memory)"},
        Row{"flock", 1, ENOLCK, "LockShared failed to lock {path}, fd:{lock}: No locks available"},
        Row{"stat", 1, EACCES, "failed to open shared memory: file does not exist"},
        Row{"open", 2, EACCES, "failed to open shared memory: Failed to open{file}"},
        Row{"fstat", 2, EIO,
            "failed to open shared memory: could not fstat the shared memory file for validation: "
            "Input/output error"},
        Row{"pread", 1, EIO,
            "failed to open shared memory: failed to read metadata from shared memory"},
        Row{"fcntl", 1, EPERM,
            "failed to open shared memory: failed to set shared memory mode flags: Operation not "
            "permitted"},
        Row{"mmap", 2, ENOMEM, "failed to open shared memory: failed to map shared memory"},
        Row{"flock", 2, EIO, "failed to unlock:Input/output error"},
        Row{"mprotect", 1, ENOMEM, "Unable to mprotect shared memory - 12(Cannot allocate memory)"},
        Row{"mprotect", 2, EACCES, "Unable to mprotect shared memory - 13(Permission denied)"}),
    RowName);

class AttachingForWriting : public FailingBlock {};

TEST_P(AttachingForWriting, FailsWithTheReasonAndLeavesNothingBehind) {
    const auto creator = Creator();

    ExpectFailure([this] { return Creator(0); });
}

INSTANTIATE_TEST_SUITE_P(
    At, AttachingForWriting,
    ::testing::Values(
        Row{"open", 1, EACCES, "LockFile could not be opened13(Permission denied)"},
        Row{"fstat", 1, EIO, "LockFile could not be opened5(Input/output error)"},
        Row{"mmap", 1, ENOMEM, "LockFile could not be opened12(Cannot allocate memory)"},
        Row{"flock", 1, EINTR,
            "LockExclusive failed to lock {path}, fd:{lock}: Interrupted system call"},
        Row{"stat", 1, ENOENT, "failed to open shared memory: file does not exist"},
        Row{"open", 2, EACCES, "failed to open shared memory: Failed to open{file}"},
        Row{"fstat", 2, EIO,
            "failed to open shared memory: could not fstat the shared memory file for validation: "
            "Input/output error"},
        Row{"pread", 1, EIO,
            "failed to open shared memory: failed to read metadata from shared memory"},
        Row{"fcntl", 1, EBADF,
            "failed to open shared memory: failed to set shared memory mode flags: Bad file "
            "descriptor"},
        Row{"mmap", 2, ENOMEM, "failed to open shared memory: failed to map shared memory"},
        Row{"flock", 2, EIO, "failed to unlock:Input/output error"},
        Row{"mprotect", 1, ENOMEM, "Unable to mprotect shared memory - 12(Cannot allocate memory)"},
        Row{"mprotect", 2, ENOMEM,
            "Unable to mprotect shared memory - 12(Cannot allocate memory)"}),
    RowName);

class Creating : public FailingBlock {};

TEST_P(Creating, FailsWithTheReasonAndLeavesNothingBehind) {
    ExpectFailure([this] { return Creator(); });
}

INSTANTIATE_TEST_SUITE_P(
    At, Creating,
    ::testing::Values(
        Row{"open", 1, ENFILE, "LockFile could not be opened23(Too many open files in system)"},
        Row{"fstat", 1, EIO, "LockFile could not be opened5(Input/output error)"},
        Row{"posix_fallocate", 1, ENOSPC, "Failed to truncate lock file to correct length"},
        Row{"ftruncate", 1, EIO, "Failed to truncate lock file to correct length"},
        Row{"mmap", 1, ENOMEM, "Failed to truncate lock file to correct length"},
        Row{"flock", 1, ENOLCK,
            "LockExclusive failed to lock {path}, fd:{lock}: No locks available"},
        Row{"memfd_create", 1, EMFILE,
            "failed to create shared memory: SYS_memfd_create failed for name {name}got "
            "errno(24):Too many open files"},
        Row{"fstat", 2, EIO,
            "failed to create shared memory: fstat failed for fd:{memory} name:{name}: "
            "Input/output error"},
        Row{"ftruncate", 2, ENOSPC,
            "failed to create shared memory: failed to ftruncate shared memory"},
        Row{"mmap", 2, ENOMEM, "failed to create shared memory: failed to map shared memory\n"},
        Row{"flock", 2, EIO, "failed to unlock:Input/output error"},
        Row{"mprotect", 1, ENOMEM, "Unable to mprotect shared memory - 12(Cannot allocate memory)"},
        Row{"mprotect", 2, ENOMEM,
            "Unable to mprotect shared memory - 12(Cannot allocate memory)"}),
    RowName);

class CreatingOverAStaleRecord : public FailingBlock {};

TEST_P(CreatingOverAStaleRecord, FailsWithTheReasonAndLeavesNothingBehind) {
    Creator(50).reset();
    ASSERT_EQ(OpenerFailure(), "failed to open shared memory: file does not exist");

    ExpectFailure([this] { return Creator(); });
}

INSTANTIATE_TEST_SUITE_P(
    At, CreatingOverAStaleRecord,
    ::testing::Values(
        Row{"memfd_create", 1, ENFILE,
            "failed to create shared memory: SYS_memfd_create failed for name {name}got "
            "errno(23):Too many open files in system"},
        Row{"fstat", 2, EIO,
            "failed to create shared memory: fstat failed for fd:{memory} name:{name}: "
            "Input/output error"},
        Row{"ftruncate", 1, ENOSPC,
            "failed to create shared memory: failed to ftruncate shared memory"},
        Row{"mmap", 2, ENOMEM, "failed to create shared memory: failed to map shared memory\n"}),
    RowName);

class Replacing : public FailingBlock {};

TEST_P(Replacing, MakesAFreshBlockWhereALiveOneCannotBeOpened) {
    const auto creator = Creator();
    const std::int64_t uid = Record().uid;
    faults_.FailNth(GetParam().operation, GetParam().nth, GetParam().error);

    const auto block = Creator(50);

    EXPECT_EQ(block->Size(), 50U);
    EXPECT_NE(Record().uid, uid);
    EXPECT_EQ(DataOf(*block), std::string(50, '\0'));
}

INSTANTIATE_TEST_SUITE_P(At, Replacing,
                         ::testing::Values(Row{"stat", 1, ENOENT, ""}, Row{"open", 2, EACCES, ""},
                                           Row{"fstat", 2, EIO, ""}, Row{"pread", 1, EIO, ""},
                                           Row{"fcntl", 1, EIO, ""}, Row{"mmap", 2, ENOMEM, ""}),
                         RowName);

class ARefusedCall : public FaultyBlockTest {};

TEST_F(ARefusedCall, AFailedUnlockIsSilentWhileAnotherFailureIsOnItsWay) {
    faults_.FailNth("flock", 2, EIO);
    EXPECT_EQ(OpenerFailure(),
              "failed to open shared memory: failed to read lockFile to get metadata");
    EXPECT_EQ(Lock(), Held::No);

    faults_.FailNth("memfd_create", 1, ENOMEM);
    faults_.FailNth("flock", 2, EIO);
    EXPECT_EQ(CreatorFailure(),
              "failed to create shared memory: SYS_memfd_create failed for name " +
                  name_.MemoryName() + "got errno(12):Cannot allocate memory");
    EXPECT_EQ(Lock(), Held::No);
    EXPECT_EQ(Holding(), Holdings{});
}

TEST_F(ARefusedCall, AFailedLockPassesUnchangedAndNothingIsOpenedAfterIt) {
    const auto creator = Creator();
    const Holdings before = Holding();
    faults_.FailNth("flock", 1, EBADF);
    const int lock = NextDescriptor();

    EXPECT_EQ(OpenerFailure(), "LockShared failed to lock " + lockPath_ +
                                   ", fd:" + std::to_string(lock) + ": Bad file descriptor");
    EXPECT_EQ(faults_.Calls("stat").size(), 0U);
    EXPECT_EQ(Holding(), before);
}

TEST_F(ARefusedCall, ARecordIsWrittenBeforeTheMemoryHasItsSizeAndGoesStale) {
    faults_.FailNth("ftruncate", 2, ENOSPC);

    EXPECT_EQ(CreatorFailure(),
              "failed to create shared memory: failed to ftruncate shared memory");

    EXPECT_EQ(ReadFile(lockPath_)[0], '\1');
    EXPECT_EQ(Record().pid, ::getpid());
    EXPECT_EQ(OpenerFailure(), "failed to open shared memory: file does not exist");
}

TEST_F(ARefusedCall, ARecordStaysAsItWasWhenNoMemoryFileCanBeMade) {
    Creator().reset();
    const std::string before = ReadFile(lockPath_);
    faults_.FailNth("memfd_create", 1, ENOMEM);

    EXPECT_EQ(CreatorFailure(),
              "failed to create shared memory: SYS_memfd_create failed for name " +
                  name_.MemoryName() + "got errno(12):Cannot allocate memory");

    EXPECT_EQ(ReadFile(lockPath_), before);
}

TEST_F(ARefusedCall, TheLockFilesErrnoIsKeptWhateverTheLogDoes) {
    LogControl::SetSink([](const LogRecord& /*record*/) { errno = EBUSY; });
    faults_.FailNth("open", 1, EACCES);

    EXPECT_EQ(OpenerFailure(), "LockFile could not be opened13(Permission denied)");
}

}  // namespace
}  // namespace qel::test
