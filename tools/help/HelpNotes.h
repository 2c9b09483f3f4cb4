#pragma once

#include <string>
#include <vector>

namespace qel {

/// A paragraph, or lines that stay as they are.
struct HelpBlock {
    std::string text;  ///< a paragraph is one line; literal lines end with a line feed each
    bool literal = false;

    bool operator==(const HelpBlock& other) const {
        return text == other.text && literal == other.literal;
    }
};

/// The text under a command's options, its footer, by the sections of a manual page. It is written
/// to be read in a terminal, so what belongs where is told by its form:
///  - A blank line ends a paragraph. The lines of a paragraph are filled anew.
///  - Lines that begin with two blanks stay as they are. If one of them calls the command ("qev "),
///    they are an example; otherwise a table, or whatever else is to stay.
///  - A paragraph that ends with a colon belongs to such lines if they follow it. If it is no more
///    than "Example:", "Examples:", "Files:" or "Exit status:", it becomes the section's name.
///  - A paragraph, or lines, that begin with "Exit status" tell the exit status of this command.
///  One
///    that has none of its own has that of the whole command.
///
/// --help shows it in the order in which it is written.
struct HelpNotes {
    std::vector<HelpBlock> description;
    std::vector<HelpBlock> exitStatus;
    std::vector<HelpBlock> files;
    std::vector<HelpBlock> examples;
};

/// The blocks of `footer` in their order; none is empty.
[[nodiscard]] std::vector<HelpBlock> BlocksOf(const std::string& footer);

[[nodiscard]] HelpNotes NotesOf(const std::string& footer);

}  // namespace qel
