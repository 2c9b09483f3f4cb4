#include "HelpFormatter.h"

#include <cstddef>
#include <sstream>

#include "HelpNotes.h"

namespace qel {
namespace {

constexpr std::size_t kColumns = 100;

/// The words of `text` in lines of at most `columns`; a longer word has a line of its own.
std::string Filled(const std::string& text, std::size_t columns) {
    std::istringstream words(text);
    std::string filled;
    std::size_t column = 0;
    for (std::string word; words >> word;) {
        if (column > 0) {
            const bool fits = column + 1 + word.size() <= columns;
            filled += fits ? ' ' : '\n';
            column = fits ? column + 1 : 0;
        }
        filled += word;
        column += word.size();
    }
    return filled;
}

std::string Indented(const std::string& lines) {
    std::istringstream stream(lines);
    std::string indented;
    for (std::string line; std::getline(stream, line);) {
        indented += "  " + line + "\n";
    }
    return indented;
}

}  // namespace

std::string HelpFormatter::make_description(const CLI::App* app) const {
    return Filled(CLI::Formatter::make_description(app), kColumns) + "\n";
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const {
    std::ostringstream out;
    CLI::detail::format_help(out, command->get_display_name(true),
                             Filled(command->get_description(), kColumns - get_column_width()),
                             get_column_width());
    return out.str();
}

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
    return Filled(option->get_description(), kColumns - get_column_width());
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
    std::string footer;
    bool isCaption = false;
    for (const HelpBlock& block : BlocksOf(app->get_footer())) {
        if (!footer.empty() && !(isCaption && block.literal)) {
            footer += "\n";
        }
        footer += block.literal ? Indented(block.text) : Filled(block.text, kColumns) + "\n";
        isCaption = !block.literal && block.text.back() == ':';
    }
    return footer;
}

}  // namespace qel
