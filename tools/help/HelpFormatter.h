#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace qel {

/// Lays the help of a command out in at most a hundred columns, so that whoever writes its texts
/// need not count. Lines that are to stay as they are (see HelpNotes.h) stay.
class HelpFormatter : public CLI::Formatter {
public:
    [[nodiscard]] std::string make_description(const CLI::App* app) const override;
    [[nodiscard]] std::string make_subcommand(const CLI::App* command) const override;
    [[nodiscard]] std::string make_option_desc(const CLI::Option* option) const override;
    [[nodiscard]] std::string make_footer(const CLI::App* app) const override;
};

}  // namespace qel
