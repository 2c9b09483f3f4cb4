#include "Cells.h"

#include <algorithm>
#include <array>
#include <cwchar>

namespace qel {
namespace {

bool Continues(char byte) {
    constexpr unsigned kMask = 0xC0;
    constexpr unsigned kContinuation = 0x80;
    return (static_cast<unsigned char>(byte) & kMask) == kContinuation;
}

/// Bytes of the character that `text` begins with.
std::size_t LengthOfFirst(std::string_view text) {
    std::size_t length = 1;
    while (length < text.size() && Continues(text[length])) {
        ++length;
    }
    return length;
}

/// The number of a character, or 0 if it is none.
char32_t CodeOf(std::string_view character) {
    struct Form {
        unsigned first;
        unsigned mask;
        char32_t least;
    };
    constexpr std::array<Form, 3> kForms{
        {{0xC0, 0xE0, 0x80}, {0xE0, 0xF0, 0x800}, {0xF0, 0xF8, 0x10000}}};
    constexpr unsigned kPayload = 0x3F;
    constexpr unsigned kBits = 6;
    if (character.size() < 2 || character.size() > kForms.size() + 1) {
        return 0;
    }
    const Form& form = kForms.at(character.size() - 2);
    const auto first = static_cast<unsigned char>(character[0]);
    if ((first & form.mask) != form.first) {
        return 0;
    }
    char32_t code = first & ~form.mask & 0xFFU;
    for (const char byte : character.substr(1)) {
        code = (code << kBits) | (static_cast<unsigned char>(byte) & kPayload);
    }
    return code < form.least ? 0 : code;
}

bool IsShown(std::string_view character, Charset charset) {
    if (character.size() == 1) {
        return character[0] >= ' ' && character[0] <= '~';
    }
    const char32_t code = CodeOf(character);
    return charset == Charset::Utf8 && code != 0 && wcwidth(static_cast<wchar_t>(code)) == 1;
}

}  // namespace

Ink InkOf(unsigned node) {
    return static_cast<Ink>(static_cast<unsigned>(Ink::Free) + node);
}

Ink BarInkOf(unsigned node) {
    return static_cast<Ink>(static_cast<unsigned>(Ink::Node4) + node);
}

std::string Shown(std::string_view text, Charset charset) {
    std::string shown;
    for (; !text.empty(); text.remove_prefix(LengthOfFirst(text))) {
        const std::string_view character = text.substr(0, LengthOfFirst(text));
        shown += IsShown(character, charset) ? character : "?";
    }
    return shown;
}

std::size_t WidthOf(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !Continues(byte); }));
}

std::size_t WidthOf(const Line& line) {
    std::size_t width = 0;
    for (const Span& span : line) {
        width += WidthOf(span.text);
    }
    return width;
}

namespace {

std::string_view FirstCells(std::string_view text, std::size_t width) {
    std::size_t bytes = 0;
    for (; width > 0 && bytes < text.size(); --width) {
        bytes += LengthOfFirst(text.substr(bytes));
    }
    return text.substr(0, bytes);
}

}  // namespace

std::string Left(std::string_view text, std::size_t width) {
    const std::size_t taken = WidthOf(text);
    if (taken > width) {
        return width == 0 ? "" : std::string(FirstCells(text, width - 1)) + "+";
    }
    return std::string(text) + std::string(width - taken, ' ');
}

std::string Right(std::string_view text, std::size_t width) {
    const std::size_t taken = WidthOf(text);
    return std::string(taken < width ? width - taken : 0, ' ') + std::string(text);
}

Line Clipped(const Line& line, std::size_t width) {
    Line clipped;
    for (const Span& span : line) {
        const std::string_view text = FirstCells(span.text, width);
        width -= WidthOf(text);
        clipped.push_back({std::string(text), span.ink});
    }
    return clipped;
}

std::string TextOf(const Line& line) {
    std::string text;
    for (const Span& span : line) {
        text += span.text;
    }
    return text;
}

}  // namespace qel
