#pragma once

#include <memory>
#include <string_view>

#include "QevExport.h"
#include "SharedMemoryBlockReaderIF.h"
#include "SysIF.h"

namespace qel {

/// Opens a block that a writer of this device keeps alive, for reading.
///
/// The block is found through "/tmp/" + name + "_shm.lock". It lives as long as a process has it
/// open; after its creator has gone, those who have it open go on, but nobody new can open it.
class QEV_EXPORT SharedMemoryBlockReader : public SharedMemoryBlockReaderIF {
public:
    /// A handle without a block: every operation throws std::runtime_error.
    SharedMemoryBlockReader();
    /// @throws std::invalid_argument  for an empty name
    /// @throws std::runtime_error  if there is no live block `name`, or the system refuses
    explicit SharedMemoryBlockReader(std::string_view name);
    /// As above, over the given system calls.
    SharedMemoryBlockReader(std::shared_ptr<SysIF> sys, std::string_view name);
    ~SharedMemoryBlockReader() override;

private:
    class Impl;

    void DoLock() override;
    bool DoTryLock() override;
    void DoUnlock() override;
    const unsigned char* DoGetData() override;
    std::uint64_t DoSize() override;

    [[nodiscard]] Impl& Block() const;

    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
