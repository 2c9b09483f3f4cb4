#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "QevExport.h"

namespace qel {

/// Boundary of a pipeline event as seen in one frame.
struct [[gnu::packed]] EventBoundary {
    bool isSet = false;  ///< the other fields are valid
    std::uint32_t id = 0;
    std::uint32_t startTick = 0;
    std::uint32_t stopTick = 0;
    std::uint32_t timestamp = 0;
};

static_assert(sizeof(EventBoundary) == 17);
static_assert(alignof(EventBoundary) == 1);
static_assert(offsetof(EventBoundary, id) == 1);
static_assert(offsetof(EventBoundary, startTick) == 5);
static_assert(offsetof(EventBoundary, stopTick) == 9);
static_assert(offsetof(EventBoundary, timestamp) == 13);

/// Writes "Not Set", or the fields on one line; no line end.
QEV_EXPORT std::ostream& operator<<(std::ostream& stream, EventBoundary boundary);

}  // namespace qel
