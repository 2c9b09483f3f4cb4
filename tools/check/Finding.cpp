#include "Finding.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "Text.h"

namespace qel {

std::string_view WordOf(Severity severity) noexcept {
    switch (severity) {
        case Severity::Fault:
            return "fault";
        case Severity::Warning:
            return "warning";
        case Severity::Note:
            break;
    }
    return "note";
}

void Add(Findings& all, const Findings& more) {
    all.insert(all.end(), more.begin(), more.end());
}

bool IsAnythingWrong(const Findings& findings) noexcept {
    return std::any_of(findings.begin(), findings.end(),
                       [](const auto& finding) { return finding.severity != Severity::Note; });
}

namespace {

/// As shells write what a terminal would not show as it is.
std::string Escaped(std::string_view word) {
    constexpr unsigned char kDelete = 0x7f;
    std::string text = "$'";
    for (const char c : word) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\'' || c == '\\') {
            text += std::string("\\") + c;
        } else if (byte < ' ' || byte >= kDelete) {
            text += fmt::format("\\{:03o}", byte);
        } else {
            text += c;
        }
    }
    return text + "'";
}

}  // namespace

std::string ShellWord(std::string_view word) {
    if (OneLine(word) != word) {
        return Escaped(word);
    }
    const bool isPlain =
        !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
            return std::isalnum(c) != 0 ||
                   std::string_view("-_./:@%+,=").find(static_cast<char>(c)) !=
                       std::string_view::npos;
        });
    if (isPlain && word.front() != '-') {
        return std::string(word);
    }
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

std::string QevCommand(std::string_view verb, std::string_view name, std::string_view options) {
    const std::string space = options.empty() ? "" : " ";
    const bool looksLikeOption = !name.empty() && name.front() == '-';
    return looksLikeOption ? fmt::format("qev {}{}{} -- {}", verb, space, options, ShellWord(name))
                           : fmt::format("qev {} {}{}{}", verb, ShellWord(name), space, options);
}

}  // namespace qel
