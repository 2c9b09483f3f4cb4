#include "StreamState.h"

#include <algorithm>
#include <charconv>

namespace qel {
namespace {

constexpr std::string_view kSerial = "serial ";
constexpr std::string_view kCaps = "caps ";
constexpr std::string_view kSegment = "segment ";
constexpr std::string_view kTags = "tags ";
constexpr std::string_view kGlobalTags = "global-tags ";

/// Gives what stands behind `name` on the line, if it is that line.
bool Read(std::string_view line, std::string_view name, std::string& value) {
    if (line.substr(0, name.size()) != name) {
        return false;
    }
    value = line.substr(name.size());
    return true;
}

void Write(std::string& text, std::string_view name, const std::string& value) {
    // A line end inside would begin another field.
    if (!value.empty() && value.find_first_of(std::string_view("\n\0", 2)) == std::string::npos) {
        text.append(name).append(value).append(1, '\n');
    }
}

}  // namespace

std::string ToText(const StreamState& state) {
    std::string text;
    Write(text, kSerial, std::to_string(state.serial));
    Write(text, kCaps, state.caps);
    Write(text, kSegment, state.segment);
    Write(text, kTags, state.tags);
    Write(text, kGlobalTags, state.globalTags);
    return text;
}

std::optional<StreamState> StreamStateFromText(std::string_view text) {
    text = text.substr(0, std::min(text.find('\0'), text.size()));
    StreamState state;
    std::string serial;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        (void)(Read(line, kSerial, serial) || Read(line, kCaps, state.caps) ||
               Read(line, kSegment, state.segment) || Read(line, kTags, state.tags) ||
               Read(line, kGlobalTags, state.globalTags));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    (void)std::from_chars(serial.data(), serial.data() + serial.size(), state.serial);
    if (state.serial == 0 || state.caps.empty()) {
        return std::nullopt;
    }
    return state;
}

}  // namespace qel
