#pragma once

#include <memory>

#include "QevExport.h"
#include "SharedMemLibIF.h"

namespace qel {

/// Makes library entries.
class QEV_EXPORT SharedMemLibFactory {
public:
    /// A new entry over the real system calls; the caller owns it.
    [[nodiscard]] static std::unique_ptr<SharedMemLibIF> Create();
};

}  // namespace qel
