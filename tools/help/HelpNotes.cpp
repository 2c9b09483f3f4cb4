#include "HelpNotes.h"

#include <array>
#include <cctype>
#include <cstddef>
#include <sstream>
#include <string_view>

namespace qel {
namespace {

constexpr std::string_view kExitStatus = "Exit status";
constexpr std::string_view kFiles = "Files:";

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

/// True if the command's name stands in `text` as a word that others follow.
bool CallsTheCommand(const std::string& text) {
    constexpr std::string_view kCall = "qev ";
    for (auto at = text.find(kCall); at != std::string::npos; at = text.find(kCall, at + 1)) {
        const char before = at == 0 ? ' ' : text[at - 1];
        if (std::isspace(static_cast<unsigned char>(before)) != 0 || before == '|' ||
            before == '(') {
            return true;
        }
    }
    return false;
}

bool IsOnlyAName(const std::string& caption) {
    constexpr std::array<std::string_view, 4> kNames{"Example:", "Examples:", kFiles,
                                                     "Exit status:"};
    for (const std::string_view name : kNames) {
        if (caption == name) {
            return true;
        }
    }
    return false;
}

/// "Exit status: 0 when ..." without the section's name.
std::string WithoutName(const std::string& text) {
    constexpr std::string_view kName = "Exit status: ";
    return StartsWith(text, kName) ? text.substr(kName.size()) : text;
}

}  // namespace

std::vector<HelpBlock> BlocksOf(const std::string& footer) {
    std::vector<HelpBlock> blocks;
    bool goesOn = false;
    std::istringstream lines(footer);
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(' ') == std::string::npos) {
            goesOn = false;
            continue;
        }
        const bool literal = StartsWith(line, "  ");
        if (!goesOn || blocks.back().literal != literal) {
            blocks.push_back({"", literal});
        }
        std::string& text = blocks.back().text;
        if (literal) {
            text += line.substr(2) + "\n";
        } else {
            text += (text.empty() ? "" : " ") + line;
        }
        goesOn = true;
    }
    return blocks;
}

HelpNotes NotesOf(const std::string& footer) {
    HelpNotes notes;
    const std::vector<HelpBlock> blocks = BlocksOf(footer);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const HelpBlock& first = blocks[i];
        const bool isCaption = !first.literal && first.text.back() == ':' &&
                               i + 1 < blocks.size() && blocks[i + 1].literal;
        const HelpBlock& last = isCaption ? blocks[++i] : first;

        std::vector<HelpBlock>* section = &notes.description;
        if (StartsWith(first.text, kExitStatus)) {
            section = &notes.exitStatus;
        } else if (first.text == kFiles) {
            section = &notes.files;
        } else if (last.literal && CallsTheCommand(last.text)) {
            section = &notes.examples;
        }
        if (isCaption && !IsOnlyAName(first.text)) {
            section->push_back(first);
        }
        section->push_back({last.literal ? last.text : WithoutName(last.text), last.literal});
    }
    return notes;
}

}  // namespace qel
