#pragma once

#include <string>

namespace qel {

/// Whether anybody has a file open for writing, or mapped so, be it a process that cannot be seen.
enum class Writers {
    None,
    Some,
    Unknown,  ///< only the file's owner may ask, and not every file system answers
};

/// Asks by a lease on the file, which is given back at once: whoever opens it for writing at this
/// very moment waits that long, or is refused with EWOULDBLOCK if it would not wait. (OpenRing and
/// NodeClaim wait.) This process must not have it
/// open for writing.
[[nodiscard]] Writers WritersOf(const std::string& path) noexcept;

}  // namespace qel
