#pragma once

#include <iosfwd>

#include "QevExport.h"

namespace qel {

/// Outcome of every operation on a ring or a packet buffer.
enum class [[nodiscard]] SMStatusCode{
    /// The operation did all that was asked.
    SUCCESS = 0,
    /// An index or length lies outside the ring, or more was released or reserved than possible
    /// and the accounting was clamped.
    INVALID_PARAMETER = 1,
    /// The segment could not be opened, sized or mapped. Only the library entry reports it.
    SHARED_MEMORY_FAILURE = 2,
    /// A write does not fit at present, in bytes or in packets. Try again after a release.
    NOT_ENOUGH_SPACE = 3,
    /// Fewer bytes are waiting for this node than it asked for. Try again later.
    DATA_NOT_AVAILABLE = 4,
    /// A write would run past the end of the ring: fill up to the end first.
    WILL_WRAP = 5,
};

/// Writes the name of `status`, or "Unknown Status".
QEV_EXPORT std::ostream& operator<<(std::ostream& stream, SMStatusCode status);

}  // namespace qel
