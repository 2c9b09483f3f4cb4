// The numbers of a process that died while it made a block are used again, by another process that
// has another file under them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "Files.h"
#include "Finding.h"
#include "Leftovers.h"
#include "ProcessWithId.h"
#include "Stage.h"

namespace qel::test {
namespace {

/// How far the dead process had come.
struct Death {
    const char* name;
    Moment moment;
};

/// What has its numbers now.
struct Successor {
    const char* name;
    int (*open)();
    bool hasInode;  ///< the dead memory's number was used again for it
    const char* reason;
};

int OpenMemory(std::int64_t uid) {
    const int file = ::memfd_create("qev-test-other", 0);
    return ::ftruncate(file, kDataSize + 8) == 0 && ::pwrite(file, &uid, sizeof(uid), 0) == 8 ? file
                                                                                              : -1;
}

int OpenMemoryOfABlock() {
    return OpenMemory(std::int64_t{1} << 61);
}

int OpenUnfinishedMemory() {
    return OpenMemory(0);
}

int OpenEmptyMemory() {
    return ::memfd_create("qev-test-other", 0);
}

class ADeadCreatorsNumbers : public ::testing::TestWithParam<std::tuple<Death, Successor>> {};

TEST_P(ADeadCreatorsNumbers, InUseAgainAreNotTakenForTheBlock) {
    const auto& [death, successor] = GetParam();
    Stage stage(SceneNamed("CreatingOverALockFileWithoutARecord"));
    stage.Kill(death.moment);
    SharedMemoryMetadata record = stage.Record();
    ASSERT_EQ(record.pid, stage.Pid());
    ProcessWithId second;
    if (!second.Start(record.pid, record.fd, successor.open)) {
        GTEST_SKIP() << "this process may not choose a process id";
    }
    if (successor.hasInode) {
        struct stat status {};
        ASSERT_EQ(::stat(BlockMemoryPath(record.pid, record.fd).c_str(), &status), 0);
        record.ino = status.st_ino;
        record.dev = status.st_dev;
        WriteFile(stage.Name().LockPath(), WithRecord(record));
    }

    const Finding found = FindNext(stage.Name().Name());

    EXPECT_EQ(found.locks, "free");
    EXPECT_EQ(found.opening, std::string("failed to open shared memory: ") + successor.reason);
    EXPECT_EQ(found.attaching, found.opening);
    EXPECT_EQ(found.creating, "fresh");
}

constexpr const char* kOtherFile =
    "shared memory file properties do not match lock file metadata, assuming stale file descriptor";
constexpr const char* kOtherUid =
    "shared memory metadata uid does not match lock file metadata uid, assuming stale file "
    "descriptor";

INSTANTIATE_TEST_SUITE_P(
    Of, ADeadCreatorsNumbers,
    ::testing::Combine(
        ::testing::Values(Death{"OneWithoutMemory", {Moment::Kind::BeforeCall, "ftruncate", 1}},
                          Death{"OneWithUnmappedMemory", {Moment::Kind::AfterCall, "ftruncate", 1}},
                          Death{"OneThatHadFinished", {Moment::Kind::AfterCall, "mprotect", 2}}),
        ::testing::Values(
            Successor{"AnotherBlock", &OpenMemoryOfABlock, false, kOtherFile},
            Successor{"ADevice", [] { return ::open("/dev/null", O_RDWR); }, false,
                      "shared memory file is not of regular type, assuming stale file descriptor"},
            Successor{"AnotherBlockOfThatInode", &OpenMemoryOfABlock, true, kOtherUid},
            Successor{"UnfinishedMemoryOfThatInode", &OpenUnfinishedMemory, true, kOtherUid},
            Successor{"EmptyMemoryOfThatInode", &OpenEmptyMemory, true,
                      "shared memory is too small"})),
    [](const auto& row) {
        return std::string(std::get<0>(row.param).name) + "By" + std::get<1>(row.param).name;
    });

}  // namespace
}  // namespace qel::test
