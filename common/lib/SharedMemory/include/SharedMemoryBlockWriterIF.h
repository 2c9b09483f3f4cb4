#pragma once

#include <cstdint>

#include "QevExport.h"

namespace qel {

/// Writes and reads a shared memory block. The memory may be touched only under a lock: outside, it
/// is not accessible and a touch of it ends the process.
///
/// Thread use and processes: as for SharedMemoryBlockReaderIF. A write lock shuts out all other
/// threads of all processes.
class QEV_EXPORT SharedMemoryBlockWriterIF {
public:
    SharedMemoryBlockWriterIF() = default;
    virtual ~SharedMemoryBlockWriterIF();
    SharedMemoryBlockWriterIF(const SharedMemoryBlockWriterIF&) = delete;
    SharedMemoryBlockWriterIF& operator=(const SharedMemoryBlockWriterIF&) = delete;

    /// Waits until nobody reads or writes, then makes the memory readable and writable.
    /// @throws std::runtime_error  if the system refuses, a signal interrupts the wait, or in a
    ///                             forked process
    void LockForWrite() { DoLockForWrite(); }

    /// As LockForWrite, without waiting.
    /// @return false, with nothing changed, if the lock is not free
    [[nodiscard]] bool TryLockForWrite() { return DoTryLockForWrite(); }

    /// Gives the write lock back.
    /// @throws std::runtime_error  if another thread took the last write lock
    void UnlockForWrite() { DoUnlockForWrite(); }

    /// See SharedMemoryBlockReaderIF::Lock.
    void LockForRead() { DoLockForRead(); }

    /// See SharedMemoryBlockReaderIF::TryLock.
    [[nodiscard]] bool TryLockForRead() { return DoTryLockForRead(); }

    /// See SharedMemoryBlockReaderIF::Unlock.
    void UnlockForRead() { DoUnlockForRead(); }

    /// First byte of the data; `Size()` bytes, valid until UnlockForRead.
    /// @throws std::runtime_error  if this thread holds no read lock, even if it holds the write
    ///                             lock
    [[nodiscard]] const unsigned char* GetDataForRead() { return DoGetDataForRead(); }

    /// First byte of the data; `Size()` bytes, accessible until UnlockForWrite.
    /// @throws std::runtime_error  if another thread, or none, took the last write lock
    [[nodiscard]] unsigned char* GetDataForWrite() { return DoGetDataForWrite(); }

    /// Bytes of data.
    [[nodiscard]] std::uint64_t Size() { return DoSize(); }

private:
    virtual void DoLockForWrite() = 0;
    virtual bool DoTryLockForWrite() = 0;
    virtual void DoUnlockForWrite() = 0;
    virtual void DoLockForRead() = 0;
    virtual bool DoTryLockForRead() = 0;
    virtual void DoUnlockForRead() = 0;
    virtual const unsigned char* DoGetDataForRead() = 0;
    virtual unsigned char* DoGetDataForWrite() = 0;
    virtual std::uint64_t DoSize() = 0;
};

}  // namespace qel
