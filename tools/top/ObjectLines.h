#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Cells.h"
#include "RingLines.h"
#include "Snapshot.h"

namespace qel {

/// Tells of a name whether it is shown.
using NameFilter = std::function<bool(const std::string&)>;

/// Blocks or semaphores beside one another, under a title; nothing if there are none.
[[nodiscard]] Lines BlockLines(const std::vector<BlockRow>& blocks, const NameFilter& isShown,
                               const RingLayout& layout);
[[nodiscard]] Lines SemaphoreLines(const std::vector<SemaphoreRow>& semaphores,
                                   const NameFilter& isShown, const RingLayout& layout);

}  // namespace qel
