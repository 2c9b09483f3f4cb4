// A creator's numbers that are used again: another process has its process id, and another file
// its descriptor number.

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>

#include "BlockFixture.h"
#include "ChildProcess.h"

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

class AReusedProcessId : public BlockTest, public ::testing::WithParamInterface<Reuse> {
public:
    AReusedProcessId() = default;
    AReusedProcessId(const AReusedProcessId&) = delete;
    AReusedProcessId& operator=(const AReusedProcessId&) = delete;
    ~AReusedProcessId() override {
        if (second_ > 0) {
            ::kill(second_, SIGKILL);
            ::waitpid(second_, nullptr, 0);
        }
    }

protected:
    /// Starts a process with the id `pid` that has the row's file at `descriptor`. Needs a right
    /// that an ordinary user has not.
    bool StartSecond(pid_t pid, int descriptor) {
        int ready[2];
        if (::pipe(ready) == -1) {
            return false;
        }
        clone_args arguments{};
        arguments.exit_signal = SIGCHLD;
        arguments.set_tid = reinterpret_cast<std::uintptr_t>(&pid);
        arguments.set_tid_size = 1;
        second_ = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof(arguments)));
        if (second_ == 0) {
            // Only system calls from here on: the C library has not noticed the fork.
            const int file = GetParam().open();
            if (file != descriptor) {
                ::dup2(file, descriptor);
            }
            (void)!::write(ready[1], "", 1);
            for (;;) {
                ::pause();
            }
        }
        ::close(ready[1]);
        char byte = 0;
        const bool started = second_ > 0 && ::read(ready[0], &byte, 1) == 1;
        ::close(ready[0]);
        return started;
    }

    pid_t second_ = -1;
};

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
    if (!StartSecond(record.pid, record.fd)) {
        GTEST_SKIP() << "this process may not choose a process id";
    }
    ASSERT_EQ(second_, record.pid);

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
