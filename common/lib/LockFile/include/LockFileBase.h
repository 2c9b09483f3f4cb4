#pragma once

/// @file
/// The locking half of a lock file, see LockFileImpl.h.

#include <sys/file.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "LockFileLog.h"
#include "MappedFile.h"

namespace qel {

/// The lock of a lock file: one reader/writer lock for all threads of all processes that open it.
///
/// Between processes the lock is a `flock` on the file, which belongs to the process as a whole;
/// between the threads of this process it is a reader/writer lock in memory.
///
/// Thread rules: any thread of the process that made the object may call any operation; a process
/// forked from it may only unlock, which closes its copy of the file and leaves the lock alone.
///
/// Invariants between operations:
///  1. Order of taking: `access_`, then `counterMutex_` (shared operations only), then `flock`;
///     given back in reverse.
///  2. `sharedHolders_` > 0: `access_` is held in shared mode that many times and the process has
///     one shared `flock`. It changes under `counterMutex_` only.
///  3. `exclusive_`: `access_` is held exclusively, by thread `owner_`, and the process has the
///     exclusive `flock`.
///  4. A lock operation that throws has given back what it took.
///  5. A release with nothing held does to `flock`, count and flag what every release does, but
///     leaves `access_` alone, so both kinds of lock work afterwards. The same holds for a release
///     of the exclusive lock by a thread that has not taken it: `owner_` still gives it back.
class LockFileBase {
public:
    LockFileBase(const LockFileBase&) = delete;
    LockFileBase& operator=(const LockFileBase&) = delete;

    /// Waits for a shared lock.
    /// @throws std::runtime_error  for an unusable file, in a forked process, or if `flock` fails;
    ///                             it is not repeated after a signal
    void LockShared();
    /// Waits for the exclusive lock. Failures as for LockShared.
    void LockExclusive();
    /// As LockShared, without waiting.
    /// @return false if the lock is not free
    [[nodiscard]] bool TryLockShared();
    /// As LockExclusive, without waiting.
    /// @return false if the lock is not free
    [[nodiscard]] bool TryLockExclusive();
    /// Gives one shared lock back.
    /// @throws std::runtime_error  for an unusable file or if `flock` fails
    void UnlockShared();
    /// Gives the exclusive lock back. Failures as for UnlockShared.
    void UnlockExclusive();
    /// Gives a `flock` of the whole process back, without the lock in memory.
    void UnlockProcess();

protected:
    /// Opens the file at `path`, creating it when it is missing. If that fails the object is not
    /// usable, and `errno` tells why.
    explicit LockFileBase(std::string_view path);

    /// Releases what is still held; a failure of that ends the process.
    ~LockFileBase();

    [[nodiscard]] bool IsUsable() const {
        return file_.Descriptor().IsOpen() && !(file_.Length() != 0 && file_.Data() == nullptr);
    }
    [[nodiscard]] bool InCreator() const { return ::getpid() == creator_; }

    // The state is open to the record layer on top, which checks it and sizes the file.
    const pid_t creator_;
    MappedFile file_;
    std::atomic<std::int32_t> sharedHolders_{0};
    std::atomic<bool> exclusive_{false};
    std::atomic<bool> process_{false};  ///< a `flock` of the process is held for UnlockProcess

private:
    void RequireLockable(const char* operation) const;
    void RequireUnlockable(const char* operation) const;
    [[nodiscard]] bool Flock(int mode) const {
        return ::flock(file_.Descriptor().Get(), mode) == 0;
    }
    [[noreturn]] void FailToLock(const char* operation, int error) const;
    void FlockUnlock() const;
    void TakeExclusive();

    std::shared_mutex access_;
    std::mutex counterMutex_;
    std::atomic<std::thread::id> owner_{};  ///< holds `access_` exclusively; survives a fork
};

inline LockFileBase::LockFileBase(std::string_view path) : creator_(::getpid()) {
    try {
        file_ = MappedFile(path, true);
    } catch (...) {
        const int error = errno;
        lock_file_log::Warn("LockFileBase", __LINE__,
                            "Failed to open lock file: " + std::string(path));
        errno = error;
    }
}

inline LockFileBase::~LockFileBase() {
    if (!IsUsable()) {
        return;
    }
    if (process_) {
        UnlockProcess();
    }
    if (exclusive_) {
        UnlockExclusive();
    }
    if (sharedHolders_ >= 1) {
        UnlockShared();
    }
}

inline void LockFileBase::RequireLockable(const char* operation) const {
    if (!IsUsable()) {
        lock_file_log::Fail(operation, __LINE__,
                            "Attempted to lock invalid LockFile " + file_.Path());
    }
    if (!InCreator()) {
        lock_file_log::Fail(operation, __LINE__, "Attempted to lock LockFile in child process");
    }
}

inline void LockFileBase::RequireUnlockable(const char* operation) const {
    if (!IsUsable()) {
        lock_file_log::Fail(operation, __LINE__, "Attempted to unlock invalid LockFile ");
    }
}

inline void LockFileBase::FailToLock(const char* operation, int error) const {
    lock_file_log::Fail(operation, __LINE__,
                        std::string(operation) + " failed to lock " + file_.Path() + ", fd:" +
                            std::to_string(file_.Descriptor().Get()) + ": " + std::strerror(error));
}

inline void LockFileBase::FlockUnlock() const {
    if (!Flock(LOCK_UN)) {
        throw std::runtime_error(std::string("failed to unlock:") + std::strerror(errno));
    }
}

inline void LockFileBase::TakeExclusive() {
    owner_ = std::this_thread::get_id();
    exclusive_ = true;
}

inline void LockFileBase::LockShared() {
    RequireLockable("LockShared");
    std::shared_lock<std::shared_mutex> access(access_);
    const std::lock_guard<std::mutex> counter(counterMutex_);
    if (sharedHolders_ <= 0) {
        if (!Flock(LOCK_SH)) {
            FailToLock("LockShared", errno);
        }
        sharedHolders_ = 0;  // a release too many may have left it below
    }
    ++sharedHolders_;
    access.release();  // held until UnlockShared
}

inline void LockFileBase::LockExclusive() {
    RequireLockable("LockExclusive");
    std::unique_lock<std::shared_mutex> access(access_);
    if (!Flock(LOCK_EX)) {
        FailToLock("LockExclusive", errno);
    }
    TakeExclusive();
    access.release();  // held until UnlockExclusive
}

inline bool LockFileBase::TryLockShared() {
    RequireLockable("TryLockShared");
    std::shared_lock<std::shared_mutex> access(access_, std::try_to_lock);
    if (!access) {
        return false;
    }
    const std::unique_lock<std::mutex> counter(counterMutex_, std::try_to_lock);
    if (!counter) {
        return false;
    }
    if (sharedHolders_ <= 0) {
        if (!Flock(LOCK_SH | LOCK_NB)) {
            if (errno == EWOULDBLOCK) {
                return false;
            }
            FailToLock("TryLockShared", errno);
        }
        sharedHolders_ = 0;
    }
    ++sharedHolders_;
    access.release();
    return true;
}

inline bool LockFileBase::TryLockExclusive() {
    RequireLockable("TryLockExclusive");
    std::unique_lock<std::shared_mutex> access(access_, std::try_to_lock);
    if (!access) {
        return false;
    }
    if (!Flock(LOCK_EX | LOCK_NB)) {
        if (errno == EWOULDBLOCK) {
            return false;
        }
        FailToLock("TryLockExclusive", errno);
    }
    TakeExclusive();
    access.release();
    return true;
}

inline void LockFileBase::UnlockShared() {
    if (!InCreator()) {
        file_.Close();  // flock(LOCK_UN) here would release the parent's lock
        if (sharedHolders_ >= 1) {
            --sharedHolders_;
            access_.unlock_shared();
        }
        return;
    }
    RequireUnlockable("UnlockShared");
    const std::lock_guard<std::mutex> counter(counterMutex_);
    std::shared_lock<std::shared_mutex> access;
    if (sharedHolders_-- >= 1) {
        access = std::shared_lock<std::shared_mutex>(access_, std::adopt_lock);
    }
    if (sharedHolders_ < 1) {
        FlockUnlock();
    }
}

inline void LockFileBase::UnlockExclusive() {
    RequireUnlockable("UnlockExclusive");
    if (InCreator()) {
        FlockUnlock();
        exclusive_ = false;
    } else {
        file_.Close();  // flock(LOCK_UN) here would release the parent's lock
    }
    if (owner_ == std::this_thread::get_id()) {
        owner_ = std::thread::id();
        access_.unlock();
    }
}

inline void LockFileBase::UnlockProcess() {
    RequireUnlockable("UnlockProcess");
    if (!InCreator()) {
        file_.Close();
        return;
    }
    FlockUnlock();
    process_ = false;
}

}  // namespace qel
