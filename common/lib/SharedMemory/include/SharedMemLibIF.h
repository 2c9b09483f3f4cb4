#pragma once

#include <memory>

#include "QevExport.h"
#include "SMStatusCode.h"
#include "SharedBufferIF.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// A new packet buffer, or the reason why there is none.
struct [[nodiscard]] SharedPacketBufferResult {
    std::unique_ptr<SharedPacketBufferIF> buffer;  ///< the caller's; empty on failure
    SMStatusCode status;
};

/// Entry of the library: makes packet buffers.
///
/// Thread use: any number of threads may call one entry at once.
class QEV_EXPORT SharedMemLibIF {
public:
    SharedMemLibIF();
    virtual ~SharedMemLibIF();
    SharedMemLibIF(const SharedMemLibIF&) = delete;
    SharedMemLibIF& operator=(const SharedMemLibIF&) = delete;

    /// Opens the ring that `info` describes, creating it when it is not there. The buffer does not
    /// need the entry that made it.
    /// @return `SUCCESS`; `INVALID_PARAMETER` or `SHARED_MEMORY_FAILURE` with an empty buffer and
    ///         one line on standard output that says why
    SharedPacketBufferResult GetSharedPacketBuffer(const SharedBufferIF::BufferInfo& info) {
        return DoGetSharedPacketBuffer(info);
    }

private:
    virtual SharedPacketBufferResult DoGetSharedPacketBuffer(
        const SharedBufferIF::BufferInfo& info) = 0;

    /// Empty today; state can be added here without a change of the class layout.
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
