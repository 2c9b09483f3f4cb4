#pragma once

#include <optional>
#include <string>

namespace qel {

/// What the payloads of the ring `name` are, as the GStreamer element that writes it tells while it
/// lives; nothing if it is no element, or has gone.
[[nodiscard]] std::optional<std::string> CapsOfWriter(const std::string& name);

}  // namespace qel
