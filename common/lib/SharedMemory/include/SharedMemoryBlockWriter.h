#pragma once

#include <memory>
#include <string_view>

#include "QevExport.h"
#include "SharedMemoryBlockWriterIF.h"
#include "SysIF.h"

namespace qel {

/// Creates a block, or attaches to the live one of the same name, for writing and reading.
///
/// Of a live block the size and contents are kept, whatever size is asked for. See
/// SharedMemoryBlockReader for how a block is found and how long it lives.
class QEV_EXPORT SharedMemoryBlockWriter : public SharedMemoryBlockWriterIF {
public:
    /// A handle without a block: every operation throws std::runtime_error.
    SharedMemoryBlockWriter();
    /// Only attaches.
    /// @throws std::invalid_argument  for an empty name
    /// @throws std::runtime_error  if there is no live block `name`, or the system refuses
    explicit SharedMemoryBlockWriter(std::string_view name);
    /// Attaches, or creates a block of `size` bytes of data, all 0. A size of 0 only attaches.
    SharedMemoryBlockWriter(std::string_view name, unsigned long size);
    /// As above, over the given system calls.
    SharedMemoryBlockWriter(std::shared_ptr<SysIF> sys, std::string_view name);
    /// As above, over the given system calls.
    SharedMemoryBlockWriter(std::shared_ptr<SysIF> sys, std::string_view name, unsigned long size);
    ~SharedMemoryBlockWriter() override;

private:
    class Impl;

    void DoLockForWrite() override;
    bool DoTryLockForWrite() override;
    void DoUnlockForWrite() override;
    void DoLockForRead() override;
    bool DoTryLockForRead() override;
    void DoUnlockForRead() override;
    const unsigned char* DoGetDataForRead() override;
    unsigned char* DoGetDataForWrite() override;
    std::uint64_t DoSize() override;

    [[nodiscard]] Impl& Block() const;

    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
