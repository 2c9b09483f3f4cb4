#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

/// How cells look. Whatever an ink tells is told by the text as well: not all terminals have
/// colours.
enum class Ink : std::uint8_t {
    Plain,
    Dim,
    Strong,
    Title,     ///< of columns and sections
    Selected,  ///< what the keys act on
    Alarm,
    Free,   ///< part of a ring's bar
    Node1,  ///< of what the node has to do with
    Node2,
    Node3,
    Node4,
    Bar1,  ///< the node's parts of a ring's bar
    Bar2,
    Bar3,
    Bar4,
};

/// The inks of a node, 1 to 4.
[[nodiscard]] Ink InkOf(unsigned node);
[[nodiscard]] Ink BarInkOf(unsigned node);

/// Characters that a terminal can show.
enum class Charset : std::uint8_t { Ascii, Utf8 };

/// Text of one look. Each of its characters takes one cell.
struct Span {
    std::string text;
    Ink ink = Ink::Plain;
};

using Line = std::vector<Span>;
using Lines = std::vector<Line>;

/// `text` as it can be shown: control characters, what is not of the character set, and what takes
/// other than one cell is replaced.
[[nodiscard]] std::string Shown(std::string_view text, Charset charset);

/// Cells that a shown text takes.
[[nodiscard]] std::size_t WidthOf(std::string_view text);
[[nodiscard]] std::size_t WidthOf(const Line& line);

/// A shown text cut or filled up to exactly `width` cells; the last tells that something was cut.
[[nodiscard]] std::string Left(std::string_view text, std::size_t width);
/// The same, filled from the left; never cut.
[[nodiscard]] std::string Right(std::string_view text, std::size_t width);

/// At most `width` cells of `line`.
[[nodiscard]] Line Clipped(const Line& line, std::size_t width);

/// The bare text.
[[nodiscard]] std::string TextOf(const Line& line);

}  // namespace qel
