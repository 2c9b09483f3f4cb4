#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace qel {
namespace {

/// Blanks what terminals take for controls in UTF-8 too: `lead` and a byte from `first` to `last`.
void BlankPairs(std::string& line, const std::string& lead, char first, char last) {
    for (auto at = line.find(lead); at != std::string::npos && at + lead.size() < line.size();
         at = line.find(lead, at + 1)) {
        const char next = line[at + lead.size()];
        if (next >= first && next <= last) {
            line.replace(at, lead.size() + 1, lead.size() + 1, ' ');
        }
    }
}

/// Bytes of the character in UTF-8 that `lead` begins; 0 if none can begin so.
std::size_t LengthOfCharacter(unsigned char lead) {
    return lead < 0x80U                     ? 1
           : lead >= 0xc2U && lead < 0xe0U  ? 2
           : lead >= 0xe0U && lead < 0xf0U  ? 3
           : lead >= 0xf0U && lead <= 0xf4U ? 4
                                            : 0;
}

/// Blanks what is no UTF-8: terminals of eight bits take some of it for controls.
void BlankStrayBytes(std::string& line) {
    for (std::size_t at = 0; at < line.size();) {
        const std::size_t length = LengthOfCharacter(static_cast<unsigned char>(line[at]));
        bool isWhole = length != 0 && at + length <= line.size();
        for (std::size_t next = 1; isWhole && next < length; ++next) {
            isWhole = (static_cast<unsigned char>(line[at + next]) & 0xc0U) == 0x80U;
        }
        if (isWhole) {
            at += length;
        } else {
            line[at++] = ' ';
        }
    }
}

}  // namespace

std::string OneLine(std::string_view text) {
    std::string line(text);
    BlankStrayBytes(line);
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
    BlankPairs(line, "\xc2", '\x80', '\x9f');
    BlankPairs(line, "\xe2\x80", '\xaa', '\xae');
    BlankPairs(line, "\xe2\x81", '\xa6', '\xa9');
    return line;
}

std::string BytesText(double bytes) {
    constexpr double kStep = 1024;
    constexpr double kRoundsUp = 1023.95;  // would be shown as 1024.0
    if (bytes < kStep) {
        return fmt::format("{:.0f} B", bytes);
    }
    constexpr std::array kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    const auto* unit = kUnits.begin();
    for (bytes /= kStep; bytes >= kRoundsUp && unit + 1 != kUnits.end(); ++unit) {
        bytes /= kStep;
    }
    return fmt::format("{:.1f} {}", bytes, *unit);
}

std::string AgeText(std::int64_t seconds) {
    constexpr std::int64_t kMinute = 60;
    constexpr std::int64_t kHour = 60 * kMinute;
    constexpr std::int64_t kDay = 24 * kHour;
    for (const auto& [unit, name] : {std::pair(kDay, "d"), {kHour, "h"}, {kMinute, "min"}}) {
        if (seconds >= 2 * unit) {
            return fmt::format("{} {}", seconds / unit, name);
        }
    }
    return fmt::format("{} s", std::max<std::int64_t>(seconds, 0));
}

std::string Counted(std::uint64_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace qel
