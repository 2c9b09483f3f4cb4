#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qel {

/// What a reader has to know before the first packet, as text: each as GStreamer writes it.
struct StreamState {
    /// Names the caps. Each packet's control record says which it was made for, so that a reader
    /// never delivers a packet under others. 0: there are none.
    std::uint32_t serial = 0;
    std::string caps;
    std::string segment;
    std::string tags;
    std::string globalTags;
};

/// One line for each field: its name, a blank, the text.
[[nodiscard]] std::string ToText(const StreamState& state);

/// Reads what `ToText` has written, up to the first zero; lines with other names are passed over.
/// @return nothing if it has no caps
[[nodiscard]] std::optional<StreamState> StreamStateFromText(std::string_view text);

}  // namespace qel
