#pragma once

#include <cstdint>

namespace qel {

/// Subsystem that a log record comes from.
enum class LogCategory : std::uint32_t {
    SharedBuffer = 0x8010,
    LockFile = 0x8027,
};

}  // namespace qel
