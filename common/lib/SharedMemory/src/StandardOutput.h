#pragma once

#include <iostream>
#include <string>

namespace qel {

/// Writes `text` to standard output as it is: the host program may have set std::cout to another
/// base or width.
inline void WriteOut(const std::string& text) {
    std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
}

/// As WriteOut, with the end of the line; flushes.
inline void WriteOutLine(const std::string& text) {
    WriteOut(text + "\n");
    std::cout.flush();
}

}  // namespace qel
