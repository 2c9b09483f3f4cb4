#pragma once

#include <cstdint>

#include "QevExport.h"

namespace qel {

/// Reads a shared memory block. The memory may be touched only between Lock and Unlock: outside, it
/// is not accessible and a touch of it ends the process.
///
/// Thread use: any thread may call any operation. A lock belongs to the thread that took it: only
/// that thread may fetch the data pointer and unlock. Locks of one thread do not nest.
///
/// Processes: a process forked from the one that made the object can neither lock nor read. A
/// process that is killed gives its locks back.
class QEV_EXPORT SharedMemoryBlockReaderIF {
public:
    SharedMemoryBlockReaderIF() = default;
    virtual ~SharedMemoryBlockReaderIF();
    SharedMemoryBlockReaderIF(const SharedMemoryBlockReaderIF&) = delete;
    SharedMemoryBlockReaderIF& operator=(const SharedMemoryBlockReaderIF&) = delete;

    /// Waits until no process writes, then makes the memory readable.
    /// @throws std::runtime_error  if the system refuses, a signal interrupts the wait, or in a
    ///                             forked process
    void Lock() { DoLock(); }

    /// As Lock, without waiting.
    /// @return false, with nothing changed, if somebody writes
    [[nodiscard]] bool TryLock() { return DoTryLock(); }

    /// Gives this thread's lock back.
    /// @throws std::runtime_error  if this thread holds none
    void Unlock() { DoUnlock(); }

    /// First byte of the data; `Size()` bytes, valid until Unlock.
    /// @throws std::runtime_error  if this thread holds no lock
    [[nodiscard]] const unsigned char* GetData() { return DoGetData(); }

    /// Bytes of data.
    [[nodiscard]] std::uint64_t Size() { return DoSize(); }

private:
    virtual void DoLock() = 0;
    virtual bool DoTryLock() = 0;
    virtual void DoUnlock() = 0;
    virtual const unsigned char* DoGetData() = 0;
    virtual std::uint64_t DoSize() = 0;
};

}  // namespace qel
