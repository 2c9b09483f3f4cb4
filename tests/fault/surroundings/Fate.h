#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "ChildProcess.h"

namespace qel::test {

/// How a process ended, when it was not in order: "killed by Bus error".
inline std::string EndOf(int status) {
    if (WIFSIGNALED(status)) {
        return std::string("killed by ") + ::strsignal(WTERMSIG(status));  // NOLINT(concurrency-*)
    }
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

/// Lets this process die of its signals as any other, with no core file and not by a sanitizer's
/// report, and ends it if it hangs.
inline void DieAsAnyOther() {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    for (const int deadly : {SIGBUS, SIGSEGV, SIGXFSZ}) {
        (void)std::signal(deadly, SIG_DFL);
    }
    constexpr unsigned kSecondsOfAHang = 100;
    ::alarm(kSecondsOfAHang);
}

/// Runs `body() -> std::string` in a process of its own; what it returns, or how the process
/// ended.
template <typename Body>
std::string FateOf(Body body) {
    ChildProcess child([&body](const Conversation& parent) {
        DieAsAnyOther();
        parent.Say(body());
        return 0;
    });
    std::string said = child.Hear();
    const int status = child.Wait();
    return status == 0 ? said : EndOf(status);
}

/// What a body returns to have its test skipped.
inline std::string Skip(const std::string& reason) {
    return "skip: " + reason;
}

/// Skips the test if the body of a process said so.
#define QEV_SKIP_IF_SAID(said)            \
    if ((said).rfind("skip: ", 0) == 0) { \
        GTEST_SKIP() << (said).substr(6); \
    }                                     \
    static_assert(true, "needs a semicolon")

}  // namespace qel::test
