// A creator's numbers that are used again: another process has its process id, and another file
// its descriptor number.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "BlockFixture.h"
#include "ChildProcess.h"
#include "ProcessWithId.h"

namespace qel::test {
namespace {

/// What the second owner of the process id has open under the creator's descriptor number.
struct Reuse {
    const char* name;
    int (*open)();
    const char* text;
};

int OpenMemoryFile() {
    const int file = ::memfd_create("qev-test-other", 0);
    return ::ftruncate(file, 1008) == 0 ? file : -1;
}

class AReusedProcessId : public BlockTest, public ::testing::WithParamInterface<Reuse> {};

TEST_P(AReusedProcessId, IsFoundStale) {
    ChildProcess first([this](const Conversation& parent) {
        const auto block = Creator(1000);
        parent.Say("made");
        (void)parent.Hear();
        return 0;
    });
    ASSERT_EQ(first.Hear(), "made");
    const SharedMemoryMetadata record = Record();
    first.Kill();
    (void)first.Wait();
    ASSERT_EQ(record.pid, first.Pid());
    ProcessWithId second;
    if (!second.Start(record.pid, record.fd, GetParam().open)) {
        GTEST_SKIP() << "this process may not choose a process id";
    }
    ASSERT_EQ(second.Pid(), record.pid);

    EXPECT_EQ(OpenerFailure(), std::string("failed to open shared memory: ") + GetParam().text);
    EXPECT_EQ(Creator(20)->Size(), 20U);
}

INSTANTIATE_TEST_SUITE_P(
    With, AReusedProcessId,
    ::testing::Values(
        Reuse{"AnotherRegularFile", &OpenMemoryFile,
              "shared memory file properties do not match lock file metadata, assuming stale file "
              "descriptor"},
        Reuse{"ADevice", [] { return ::open("/dev/null", O_RDWR); },
              "shared memory file is not of regular type, assuming stale file descriptor"}),
    [](const auto& reuse) { return reuse.param.name; });

}  // namespace
}  // namespace qel::test
