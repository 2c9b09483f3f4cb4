#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qel {

/// `text` with line ends and other control characters replaced, so that it stays one line.
[[nodiscard]] std::string OneLine(std::string_view text);

/// A number of bytes for people: "712 B", "4.0 KiB", "64.0 MiB".
[[nodiscard]] std::string BytesText(double bytes);

/// A length of time for people: "3 s", "12 min", "5 h", "9 d".
[[nodiscard]] std::string AgeText(std::int64_t seconds);

/// `count` and the noun, with an s unless it is one.
[[nodiscard]] std::string Counted(std::uint64_t count, std::string_view noun);

}  // namespace qel
