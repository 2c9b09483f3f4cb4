#pragma once

#include <string>
#include <string_view>

namespace qel {

/// `name` as valid UTF-8 without control characters, as labels must be. Each byte that does not fit
/// in, and each backslash, becomes \xHH, so that different names stay different.
[[nodiscard]] std::string LabelText(std::string_view name);

}  // namespace qel
