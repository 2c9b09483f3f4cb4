#pragma once

#include <sys/types.h>

#include <string>

namespace qel {

/// The number of the user, or group, that `text` names or, where nobody has that name, is.
/// @throws UsageError when there is none
/// @throws std::runtime_error when the system cannot be asked
[[nodiscard]] uid_t UserNumber(const std::string& text);
[[nodiscard]] gid_t GroupNumber(const std::string& text);

}  // namespace qel
