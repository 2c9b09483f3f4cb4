#pragma once

#include <fstream>
#include <string>

namespace qel {

/// What a file of /proc or /sys says, up to where it can be read: that of a process that ends while
/// it is read fails in the middle. Nothing if it cannot be opened.
[[nodiscard]] inline std::string FileText(const std::string& path) {
    std::ifstream file(path);
    std::string text;
    (void)std::getline(file, text, '\0');  // of a failure, an iterator over the buffer throws
    return text;
}

}  // namespace qel
