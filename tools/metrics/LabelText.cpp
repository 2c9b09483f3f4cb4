#include "LabelText.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace qel {
namespace {

/// A form of UTF-8: what its first byte looks like, how many bytes follow, and its least value.
struct Form {
    unsigned mask;
    unsigned lead;
    std::size_t following;
    std::uint32_t least;
};

constexpr std::array kForms{Form{0x80, 0x00, 0, 0x20}, Form{0xE0, 0xC0, 1, 0xA0},
                            Form{0xF0, 0xE0, 2, 0x800}, Form{0xF8, 0xF0, 3, 0x10000}};

constexpr bool IsText(std::uint32_t point) {
    constexpr std::uint32_t kDelete = 0x7F;
    constexpr std::uint32_t kSurrogates = 0xD800;
    constexpr std::uint32_t kBehindSurrogates = 0xE000;
    constexpr std::uint32_t kLast = 0x10FFFF;
    return point != kDelete && point != '\\' && point <= kLast &&
           (point < kSurrogates || point >= kBehindSurrogates);
}

/// Bytes of the character that `text` begins with; 0 if that is none, or one that is no text.
std::size_t CharacterIn(std::string_view text) {
    constexpr unsigned kFollowingMask = 0xC0;
    constexpr unsigned kFollowingLead = 0x80;
    constexpr unsigned kFollowingBits = 6;
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    for (const Form& form : kForms) {
        if ((byte(0) & form.mask) != form.lead) {
            continue;
        }
        std::uint32_t point = byte(0) & ~form.mask;
        for (std::size_t i = 1; i <= form.following; ++i) {
            if (i >= text.size() || (byte(i) & kFollowingMask) != kFollowingLead) {
                return 0;
            }
            point = (point << kFollowingBits) | (byte(i) & ~kFollowingMask);
        }
        return point >= form.least && IsText(point) ? form.following + 1 : 0;
    }
    return 0;
}

}  // namespace

std::string LabelText(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const std::size_t size = CharacterIn(name);
        if (size == 0) {
            fmt::format_to(std::back_inserter(text), "\\x{:02x}",
                           static_cast<unsigned char>(name.front()));
            name.remove_prefix(1);
        } else {
            text += name.substr(0, size);
            name.remove_prefix(size);
        }
    }
    return text;
}

}  // namespace qel
