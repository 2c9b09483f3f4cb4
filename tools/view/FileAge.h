#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qel {

/// Seconds since the file was made; where the file system does not keep that, since it was last
/// changed.
[[nodiscard]] std::optional<std::int64_t> AgeOf(const std::string& path);

}  // namespace qel
