#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <unordered_set>

#include "FileDescriptor.h"
#include "LockFileImpl.h"
#include "SharedMemoryMetadata.h"
#include "SysIF.h"

namespace qel {

/// A named block of memory, shared between processes and reached only under a lock.
///
/// The memory is an anonymous memory file, an 8-byte `uid` followed by the user's data. A lock file
/// announces where it is and is the reader/writer lock of all processes that use it.
///
/// Thread rules: any thread may call any operation. A lock belongs to the thread that took it; only
/// that thread may fetch the data pointer and unlock. Construction and destruction are one
/// thread's.
///
/// Invariants between operations:
///  1. Bit `kRead` of `accessFlags_` is set exactly while `readerThreads_` is not empty or a write
///     lock is held; bit `kWrite` exactly while a write lock is held. The mapping's protection
///     follows, so an access outside a lock faults.
///  2. `readerThreads_` is guarded by `readerMutex_` and holds each reading thread once.
///  3. `writerThread_` is the last thread that took the write lock; unlocking leaves it.
///  4. Order of taking: the lock file, then `readerMutex_`, which is never held while waiting.
///
/// Opening and creating stand in SharedMemoryBlockOpen.cpp, locking and access in
/// SharedMemoryBlock.cpp.
class SharedMemoryBlock {
public:
    /// An unusable block: every locking operation throws.
    SharedMemoryBlock() = default;

    /// Opens the block `name`; a creating side makes it if there is none and `size` is not 0.
    /// @throws std::invalid_argument  for an empty name
    /// @throws std::runtime_error  if there is no block, or the system refuses a step
    SharedMemoryBlock(std::shared_ptr<SysIF> sys, std::string_view name, bool create,
                      std::uint64_t size);

    SharedMemoryBlock(const SharedMemoryBlock&) = delete;
    SharedMemoryBlock& operator=(const SharedMemoryBlock&) = delete;

    void LockForRead();
    /// @return false if the lock is not free
    [[nodiscard]] bool TryLockForRead();
    void UnlockForRead();
    void LockForWrite();
    /// @return false if the lock is not free
    [[nodiscard]] bool TryLockForWrite();
    void UnlockForWrite();

    /// First byte of the data, for a thread that holds a read lock.
    [[nodiscard]] const unsigned char* GetDataForRead();
    /// First byte of the data, for the thread that last took the write lock.
    [[nodiscard]] unsigned char* GetDataForWrite();
    /// Bytes of data. Checks nothing: 2^64 - 8 for an unusable block.
    [[nodiscard]] std::uint64_t Size() const { return size_ - kBlockHeaderSize; }

    /// Allow or forbid access outside the scheme of locks.
    void SetReadAllowed(bool allowed);
    void SetWriteAllowed(bool allowed);

private:
    /// Success, and the reason when there is none.
    using OpenResult = std::tuple<bool, std::string>;
    using LockFile = LockFileIOBase<SharedMemoryMetadata>;

    // As mprotect takes them.
    static constexpr int kRead = 1;
    static constexpr int kWrite = 2;

    void Open();
    void OpenOrCreate(const std::string& memoryFileName, std::uint64_t size);
    OpenResult OpenExistingSharedMemory(bool write);
    OpenResult Attach(const SharedMemoryMetadata& record, bool write);
    OpenResult CreateSharedMemory(const std::string& memoryFileName, std::uint64_t size);
    [[nodiscard]] bool HasHugePages() const;
    [[nodiscard]] bool MapSharedMem(int descriptor, std::uint64_t length, int protection);
    void SetAccessPerms() const;

    void RequireUsable() const;
    void EnterReader();
    void EnterWriter();

    std::unique_ptr<unsigned char, std::function<void(unsigned char*)>> mapping_;
    std::atomic<int> accessFlags_{0};
    std::int64_t* header_ = nullptr;
    unsigned char* data_ = nullptr;
    std::shared_ptr<SysIF> sys_;
    std::uint64_t size_ = 0;
    std::unique_ptr<LockFile> lockFile_;
    std::atomic<std::thread::id> writerThread_{};
    std::mutex readerMutex_;
    std::unordered_set<std::thread::id> readerThreads_;
    FileDescriptor fd_;
};

}  // namespace qel
