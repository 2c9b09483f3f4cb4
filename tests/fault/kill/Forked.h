#pragma once

#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace qel::test {

/// Starts a process that runs `body`. It dies with its parent, of a signal if the body throws, and
/// of an alarm if it hangs.
template <typename Body>
pid_t Fork(const Body& body) {
    constexpr unsigned kMostSeconds = 120;
    const pid_t child = ::fork();
    if (child == -1) {
        throw std::runtime_error("no process");
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::alarm(kMostSeconds);
        try {
            body();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "forked process: %s\n", error.what());
            ::_exit(1);
        }
        ::_exit(0);
    }
    return child;
}

/// Waits for the end of a process; its status as waitpid gives it.
inline int WaitFor(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

inline bool WasKilled(int status) {
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

}  // namespace qel::test
