#pragma once

#include <memory>

#include "SharedMemLibIF.h"
#include "SysIF.h"

namespace qel {

/// The library entry over the real system calls. It keeps no list of the buffers it makes.
///
/// Thread use: free; the only state is the shared system-call interface.
class SharedMemLib : public SharedMemLibIF {
public:
    SharedMemLib();

private:
    SharedPacketBufferResult DoGetSharedPacketBuffer(
        const SharedBufferIF::BufferInfo& info) override;

    std::shared_ptr<SysIF> sys_;
};

}  // namespace qel
