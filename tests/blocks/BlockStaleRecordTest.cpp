// Lock files whose record names something else than the block.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <limits>
#include <optional>

#include "BlockFixture.h"
#include "CallFaults.h"
#include "ChildProcess.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr std::int64_t kUid = 3000000000000000000;

class ARecordThatNames : public BlockTest {
protected:
    /// A record of this process's `descriptor`, as it is.
    static SharedMemoryMetadata RecordOf(int descriptor) {
        struct stat status {};
        ::fstat(descriptor, &status);
        return {::getpid(), descriptor, status.st_dev, status.st_ino, kUid};
    }
    /// A memory file of `bytes`.
    static FileDescriptor MemoryFile(const std::string& bytes) {
        FileDescriptor file(::memfd_create("qev-test", 0));
        EXPECT_EQ(::write(file.Get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
        return file;
    }
    static std::string Bytes(std::int64_t uid) {
        std::string bytes(8, '\0');
        std::memcpy(bytes.data(), &uid, 8);
        return bytes;
    }
    /// A reader, and a writer that only attaches, are refused with `text`; a writer with a size
    /// makes a fresh block.
    void ExpectStale(const SharedMemoryMetadata& record, const std::string& text) {
        StoreRecord(lockPath_, record);
        const Holdings before = HoldingsOf("");
        EXPECT_EQ(OpenerFailure(), "failed to open shared memory: " + text);
        EXPECT_EQ(CreatorFailure(0), "failed to open shared memory: " + text);
        EXPECT_EQ(HoldingsOf("").descriptors, before.descriptors);
        EXPECT_EQ(Lock(), Held::No);

        const auto fresh = Creator(10);
        EXPECT_EQ(fresh->Size(), 10U);
        EXPECT_NE(Record().uid, kUid);
        EXPECT_EQ(Opener()->Size(), 10U);
    }

    static constexpr const char* kNotRegular =
        "shared memory file is not of regular type, assuming stale file descriptor";
    static constexpr const char* kAnotherFile =
        "shared memory file properties do not match lock file metadata, assuming stale file "
        "descriptor";
    static constexpr const char* kAnotherUid =
        "shared memory metadata uid does not match lock file metadata uid, assuming stale file "
        "descriptor";
};

TEST_F(ARecordThatNames, NoDescriptorIsRefused) {
    ExpectStale({::getpid(), -1, 1, 1, kUid}, "lockFile metadata has invalid file descriptor");
    ExpectStale({::getpid(), std::numeric_limits<std::int32_t>::min(), 1, 1, kUid},
                "lockFile metadata has invalid file descriptor");
}

TEST_F(ARecordThatNames, DescriptorZeroIsFollowed) {
    struct stat status {};
    ASSERT_EQ(::fstat(0, &status), 0);
    StoreRecord(lockPath_, {::getpid(), 0, status.st_dev + 1, status.st_ino, kUid});

    EXPECT_NE(OpenerFailure(),
              "failed to open shared memory: lockFile metadata has invalid file descriptor");
}

TEST_F(ARecordThatNames, AClosedDescriptorIsRefused) {
    ExpectStale({::getpid(), NextDescriptor() + 100, 1, 1, kUid}, "file does not exist");
}

TEST_F(ARecordThatNames, NoProcessIsRefused) {
    ExpectStale({0, 3, 1, 1, kUid}, "file does not exist");
    ExpectStale({-5, 3, 1, 1, kUid}, "file does not exist");
    ExpectStale({std::numeric_limits<std::int32_t>::max(), 3, 1, 1, kUid}, "file does not exist");
}

TEST_F(ARecordThatNames, WhatCannotBeOpenedIsRefused) {
    std::array<int, 2> sockets{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
    const FileDescriptor one(sockets[0]);
    const FileDescriptor other(sockets[1]);
    const SharedMemoryMetadata record = RecordOf(one.Get());

    ExpectStale(record, "Failed to open" + AnnouncedPath(record));
}

TEST_F(ARecordThatNames, ADirectoryIsRefused) {
    const FileDescriptor directory(::open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const SharedMemoryMetadata record = RecordOf(directory.Get());
    StoreRecord(lockPath_, record);

    EXPECT_EQ(OpenerFailure(), std::string("failed to open shared memory: ") + kNotRegular);
    EXPECT_EQ(CreatorFailure(0),
              "failed to open shared memory: Failed to open" + AnnouncedPath(record));
}

TEST_F(ARecordThatNames, ADeviceIsRefused) {
    const FileDescriptor device(::open("/dev/null", O_RDWR | O_CLOEXEC));

    ExpectStale(RecordOf(device.Get()), kNotRegular);
}

TEST_F(ARecordThatNames, APipeIsRefused) {
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    const FileDescriptor out(pipe[0]);
    const FileDescriptor in(pipe[1]);

    ExpectStale(RecordOf(out.Get()), kNotRegular);
}

/// A FIFO with a name and a reader, and without a writer.
class NamedFifo {
public:
    explicit NamedFifo(std::string path) : path_(std::move(path)) {
        EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0);
        reader_ = FileDescriptor(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    }
    ~NamedFifo() { ::unlink(path_.c_str()); }
    NamedFifo(const NamedFifo&) = delete;
    NamedFifo& operator=(const NamedFifo&) = delete;

    [[nodiscard]] int Reader() const { return reader_.Get(); }

private:
    std::string path_;
    FileDescriptor reader_;
};

TEST_F(ARecordThatNames, AFifoWithoutAWriterIsRefusedWithoutBeingOpened) {
    const NamedFifo fifo("/tmp/" + name_.Name() + ".fifo");
    const SharedMemoryMetadata record = RecordOf(fifo.Reader());
    StoreRecord(lockPath_, record);
    const auto opened = [&](const auto& action) {
        CallFaults faults;
        faults.Alias(lockPath_, "LOCK");
        faults.Alias(AnnouncedPath(record), "FIFO");
        faults.FailNth("open", 2, EWOULDBLOCK);  // where it would wait
        action();
        return faults.Calls("open");
    };
    const std::string failure = std::string("failed to open shared memory: ") + kNotRegular;
    const auto onlyTheLockFile = ElementsAre(StartsWith("open(LOCK, "));

    EXPECT_THAT(opened([&] { EXPECT_EQ(OpenerFailure(), failure); }), onlyTheLockFile);
    EXPECT_THAT(opened([&] { EXPECT_EQ(CreatorFailure(0), failure); }), onlyTheLockFile);
    std::unique_ptr<SharedMemoryBlock> fresh;
    EXPECT_THAT(opened([&] { fresh = Creator(10); }), onlyTheLockFile);

    EXPECT_EQ(fresh->Size(), 10U);
    EXPECT_EQ(Opener()->Size(), 10U);
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(ARecordThatNames, AnotherRegularFileIsRefused) {
    const FileDescriptor file = MemoryFile(Bytes(kUid) + "data");
    SharedMemoryMetadata record = RecordOf(file.Get());
    ++record.ino;
    ExpectStale(record, kAnotherFile);

    record = RecordOf(file.Get());
    ++record.dev;
    ExpectStale(record, kAnotherFile);
}

TEST_F(ARecordThatNames, AFileOfFewerThanEightBytesIsRefused) {
    for (const std::size_t size : {0U, 1U, 7U}) {
        SCOPED_TRACE(size);
        const FileDescriptor file = MemoryFile(Bytes(kUid).substr(0, size));
        ExpectStale(RecordOf(file.Get()), "shared memory is too small");
    }
}

TEST_F(ARecordThatNames, AFileOfEightBytesIsABlockWithoutData) {
    const FileDescriptor file = MemoryFile(Bytes(kUid));
    StoreRecord(lockPath_, RecordOf(file.Get()));

    EXPECT_EQ(Opener()->Size(), 0U);
    EXPECT_EQ(Creator(10)->Size(), 0U);
    EXPECT_EQ(Record().uid, kUid);
}

TEST_F(ARecordThatNames, AFileWithAnotherUidIsRefused) {
    const FileDescriptor file = MemoryFile(Bytes(kUid + 1) + "data");

    ExpectStale(RecordOf(file.Get()), kAnotherUid);
}

TEST_F(ARecordThatNames, AFileWithoutAUidIsRefusedEvenWhenTheRecordHasNoneEither) {
    const FileDescriptor file = MemoryFile(Bytes(0) + "data");
    SharedMemoryMetadata record = RecordOf(file.Get());
    record.uid = 0;

    ExpectStale(record, kAnotherUid);
}

TEST_F(ARecordThatNames, AFileWithItsUidIsOpenedWhateverTheUidIs) {
    for (const std::int64_t uid : {std::int64_t{1}, std::int64_t{-1}}) {
        const FileDescriptor file = MemoryFile(Bytes(uid) + "data");
        SharedMemoryMetadata record = RecordOf(file.Get());
        record.uid = uid;
        StoreRecord(lockPath_, record);

        const auto block = Opener();
        EXPECT_EQ(DataOf(*block), "data");
    }
}

TEST_F(ARecordThatNames, AFileThatMayOnlyBeReadIsOpenedAndNotAttachedTo) {
    ChildProcess child([this](const Conversation& parent) {
        // Not as the user who may do everything; still allowed to look at its own descriptors.
        if (::getuid() == 0 && (::setuid(65534) == -1 || ::prctl(PR_SET_DUMPABLE, 1) == -1)) {
            return 1;
        }
        const FileDescriptor file = MemoryFile(Bytes(kUid) + "data");
        ::fchmod(file.Get(), 0400);
        const SharedMemoryMetadata record = RecordOf(file.Get());
        StoreRecord(lockPath_, record);
        parent.Say(AnnouncedPath(record));
        parent.Say(DataOf(*Opener()));
        parent.Say(CreatorFailure(0));
        return 0;
    });
    const std::string announced = child.Hear();
    EXPECT_EQ(child.Hear(), "data");
    EXPECT_EQ(child.Hear(), "failed to open shared memory: Failed to open" + announced);
    EXPECT_EQ(child.ExitCode(), 0);
}

}  // namespace
}  // namespace qel::test
