#pragma once

#include <sys/stat.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qel::test {

/// Records the system calls that this program makes directly, and can refuse any of them, for as
/// long as it lives. A program that is linked with CallFaults.cpp has these calls wrapped:
///
///     open stat fstat pread fcntl mprotect flock mmap munmap ftruncate posix_fallocate close,
///     and memfd_create through `syscall`
///
/// Thread use: one object at a time; the wrapped calls may come from any thread.
class CallFaults {
public:
    CallFaults();
    ~CallFaults();
    CallFaults(const CallFaults&) = delete;
    CallFaults& operator=(const CallFaults&) = delete;

    /// Refuses the `nth` call from now of `operation`, 1 being the next, with `error`.
    void FailNth(const std::string& operation, int nth, int error);
    /// Answers the `nth` call from now with `result` in place of making it.
    void AnswerNth(const std::string& operation, int nth, long result);
    /// Lets `edit` change what the `nth` fstat from now has found.
    void EditNthFstat(int nth, std::function<void(struct stat&)> edit);
    /// Runs `action` in the calling thread ahead of the `nth` call from now of `operation`. What
    /// `action` calls is not recorded.
    void BeforeNth(const std::string& operation, int nth, std::function<void()> action);

    /// Records show `alias` where `text` occurs.
    void Alias(const std::string& text, const std::string& alias);

    /// The calls so far, as "flock(/tmp/a.lock, 2)". Descriptors are shown as the paths that they
    /// stand for, memory addresses not at all.
    [[nodiscard]] std::vector<std::string> Calls() const;
    /// Those of `operation` only.
    [[nodiscard]] std::vector<std::string> Calls(const std::string& operation) const;
    void ForgetCalls();

    /// What the wrapped call is to do.
    struct Verdict {
        bool make = true;
        long result = 0;  ///< if it is not made
        int error = 0;    ///< and its errno, 0 for none
        std::function<void(struct stat&)> edit;
        std::function<void()> before;
    };
    /// For the wrappers: notes a call.
    Verdict Note(const std::string& operation, const std::string& arguments);

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> calls_;  // operation, arguments
    std::vector<std::pair<std::string, std::string>> aliases_;
    struct Planned {
        int countdown;
        Verdict verdict;
    };
    std::multimap<std::string, Planned> plans_;
};

}  // namespace qel::test
