#pragma once

#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>

namespace qel::test {

/// A process that has the id of one that has ended, and a file open under a chosen number. It does
/// nothing and ends with this object.
class ProcessWithId {
public:
    ProcessWithId() = default;
    ~ProcessWithId() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    ProcessWithId(const ProcessWithId&) = delete;
    ProcessWithId& operator=(const ProcessWithId&) = delete;

    /// Starts it with what `open` returns at `descriptor`; `open` makes system calls only. Needs a
    /// right that an ordinary user has not.
    /// @return false if this process may not choose a process id
    template <typename Open>
    bool Start(pid_t pid, int descriptor, const Open& open) {
        int ready[2];
        if (::pipe(ready) == -1) {
            return false;
        }
        clone_args arguments{};
        arguments.exit_signal = SIGCHLD;
        arguments.set_tid = reinterpret_cast<std::uintptr_t>(&pid);
        arguments.set_tid_size = 1;
        pid_ = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof(arguments)));
        if (pid_ == 0) {
            // Only system calls from here on: the C library has not noticed the fork.
            const int file = open();
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
        const bool started = pid_ > 0 && ::read(ready[0], &byte, 1) == 1;
        ::close(ready[0]);
        return started;
    }

    [[nodiscard]] pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

}  // namespace qel::test
