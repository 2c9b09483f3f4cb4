#pragma once

#include <string_view>

namespace qel {

/// True if a text of another process may be given to GStreamer's parser. The parser calls itself
/// for each bracket that opens, inside of quotes too, so a text of nothing else would exhaust the
/// stack. No sound text comes near the limit.
[[nodiscard]] inline bool IsSafeToParse(std::string_view text) noexcept {
    constexpr std::string_view kOpening = "[{<(";
    constexpr std::string_view kClosing = "]}>)";
    constexpr int kDeepest = 200;
    int depth = 0;
    for (const char character : text) {
        if (kOpening.find(character) != std::string_view::npos) {
            ++depth;
        } else if (depth > 0 && kClosing.find(character) != std::string_view::npos) {
            --depth;
        }
        if (depth > kDeepest) {
            return false;
        }
    }
    return true;
}

}  // namespace qel
