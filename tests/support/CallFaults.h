#pragma once

#include <sys/stat.h>

#include <atomic>
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
/// and one that is linked with NamedCallFaults.cpp as well, these:
///
///     shm_open shm_unlink madvise sem_open sem_close sem_post sem_wait sem_trywait sem_timedwait
///     sem_clockwait sem_getvalue
///
/// A close that is refused has closed its descriptor, as on Linux.
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
    /// Refuses the `nth` call from now of `operation` and those after it, up to `calls` of them.
    void FailFrom(const std::string& operation, int nth, int error, int calls);
    /// Answers the `nth` call from now with `result` in place of making it.
    void AnswerNth(const std::string& operation, int nth, long result);
    /// Lets `edit` change what the `nth` fstat from now has found.
    void EditNthFstat(int nth, std::function<void(struct stat&)> edit);
    /// Forgets what has been planned and not come yet: from now on the system answers.
    void Lift();
    /// How many calls have been refused, or answered in the system's place, so far.
    [[nodiscard]] int Refusals() const;
    /// From now on only a substitute's calls are recorded and refused, see CallWrapping.h.
    void IgnoreDirectCalls() { ignoresDirectCalls_ = true; }
    [[nodiscard]] bool IgnoresDirectCalls() const { return ignoresDirectCalls_; }
    /// Makes the calls that were refused and that would have given something back.
    void MakeUpForRefused();

    /// Runs `action` in the calling thread ahead of the `nth` call from now of `operation`. What
    /// `action` calls is not recorded.
    void BeforeNth(const std::string& operation, int nth, std::function<void()> action);
    /// The same right after that call, which has been made.
    void AfterNth(const std::string& operation, int nth, std::function<void()> action);

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
        std::shared_ptr<void> after{};  ///< whose end, with the wrapper's, acts after the call
    };
    /// For the wrappers: notes a call.
    Verdict Note(const std::string& operation, const std::string& arguments);
    /// For the wrappers: what a refused call would have done.
    void Owe(std::function<void()> call);

    /// For as long as it lives, the calls of this thread are made without being recorded.
    class Unseen {
    public:
        Unseen();
        ~Unseen();
        Unseen(const Unseen&) = delete;
        Unseen& operator=(const Unseen&) = delete;

    private:
        bool before_;
    };

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> calls_;  // operation, arguments
    std::vector<std::pair<std::string, std::string>> aliases_;
    struct Planned {
        int countdown;
        Verdict verdict;
        int calls = 1;  ///< how many from there on
        std::function<void()> after{};
    };
    std::multimap<std::string, Planned> plans_;
    int refusals_ = 0;
    std::vector<std::function<void()>> owed_;
    std::atomic<bool> ignoresDirectCalls_{false};
};

}  // namespace qel::test
