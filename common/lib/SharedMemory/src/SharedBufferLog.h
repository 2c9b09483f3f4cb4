#pragma once

#include "LogCategory.h"
#include "LogLevel.h"

namespace qel {

/// How the ring's log records name their origin. The lines are part of the records' fixed form:
/// they do not follow the source when it moves.
namespace shared_buffer_log {

inline constexpr const char* kSourcePath = "common/lib/SharedMemory/src/SharedBuffer";
inline constexpr LogLevel kErrorLevel = LogLevel::Critical;
inline constexpr LogCategory kCategory = LogCategory::SharedBuffer;

inline constexpr unsigned kOpenShmLine = 420;
inline constexpr unsigned kAllocateShmLine = 437;
inline constexpr unsigned kMapShmLine = 458;
inline constexpr unsigned kUnmapLine = 473;
inline constexpr unsigned kCloseShmLine = 493;
inline constexpr unsigned kDoPrintLine = 568;

}  // namespace shared_buffer_log
}  // namespace qel
