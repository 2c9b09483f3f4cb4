#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <string>

namespace qel::test {

/// What this process holds of the files whose path contains a text.
struct Holdings {
    int descriptors = 0;
    int mappings = 0;

    bool operator==(const Holdings& other) const {
        return descriptors == other.descriptors && mappings == other.mappings;
    }
};

inline std::string PathOfDescriptor(const std::string& descriptor) {
    std::array<char, 4096> target{};
    const ssize_t length =
        ::readlink(("/proc/self/fd/" + descriptor).c_str(), target.data(), target.size());
    return length < 0 ? std::string()
                      : std::string(target.data(), static_cast<std::size_t>(length));
}

/// Counts what this process holds; of all files if `text` is empty.
inline Holdings HoldingsOf(const std::string& text) {
    Holdings held;
    DIR* const directory = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(directory)) {  // NOLINT(concurrency-mt-unsafe)
        const std::string path = PathOfDescriptor(entry->d_name);
        held.descriptors += !path.empty() && path.find(text) != std::string::npos ? 1 : 0;
    }
    ::closedir(directory);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        held.mappings += line.find(text) != std::string::npos ? 1 : 0;
    }
    return held;
}

/// The descriptor that the next open call of this process returns.
inline int NextDescriptor() {
    const int next = ::dup(0);
    ::close(next);
    return next;
}

/// How the `flock` on a file is held.
enum class Held { No, Shared, Exclusive };

/// Who holds the `flock` on the file at `path`, seen by an outsider: through a file description of
/// its own, without waiting.
inline Held LockOn(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) {
        throw std::runtime_error("no lock file " + path);
    }
    Held held = Held::Exclusive;
    if (::syscall(SYS_flock, descriptor, LOCK_EX | LOCK_NB) == 0) {
        held = Held::No;
    } else if (::syscall(SYS_flock, descriptor, LOCK_SH | LOCK_NB) == 0) {
        held = Held::Shared;
    }
    ::close(descriptor);
    return held;
}

/// A `flock` that somebody else holds, taken without waiting.
class ForeignLock {
public:
    ForeignLock(const std::string& path, int mode)
        : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (::syscall(SYS_flock, descriptor_, mode | LOCK_NB) == -1) {
            ::close(descriptor_);
            throw std::runtime_error("the file is locked already");
        }
    }
    ~ForeignLock() { ::close(descriptor_); }
    ForeignLock(const ForeignLock&) = delete;
    ForeignLock& operator=(const ForeignLock&) = delete;

private:
    int descriptor_;
};

inline pid_t ThisThread() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

/// True while thread `thread` of process `process` waits inside the system call `number`, which is
/// `SYS_flock` for the lock of a file or `SYS_futex` for a lock in memory.
inline bool IsBlocked(pid_t process, pid_t thread, long number) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/syscall");
    std::string found;
    return file >> found && found == std::to_string(number);
}

/// Returns when the one thread of process `process` waits inside the system call `number`. False
/// if the process has ended.
inline bool AwaitBlocked(pid_t process, long number) {
    while (!IsBlocked(process, process, number)) {
        siginfo_t ended{};
        if (::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT) ==
                -1 ||
            ended.si_pid == process) {
            return false;
        }
        ::sched_yield();
    }
    return true;
}

}  // namespace qel::test
