#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "HelpNotes.h"

namespace qel {

/// An option, or an argument that is told by its place.
struct HelpOption {
    std::vector<std::string> names;    ///< "-h" and "--help"; the one name of an argument
    std::string value;                 ///< what stands for its value, as BYTES; empty for a flag
    std::string preset;                ///< the value it has when it is not given, if that is told
    std::string text;                  ///< its help
    std::vector<std::string> choices;  ///< all values that it may have, if they are few
    bool required = false;
    bool repeats = false;
};

/// A command or verb, and all below it. Everything is taken from the CLI::App that reads the
/// command line, in the order in which it was added there; what is hidden from its help is left
/// out:
///  - `value` and `preset` from the option's text, as "BYTES [65536]", or else from its type;
///  - `choices` from its checks CLI::IsMember, CLI::CheckedTransformer and narrow CLI::Range.
struct HelpCommand {
    std::vector<std::string> words;  ///< by which it is called, as "qev", "block", "read"
    std::string version;             ///< of the whole command
    std::string summary;
    HelpNotes notes;
    std::vector<HelpOption> arguments;
    std::vector<HelpOption> options;
    std::vector<HelpCommand> verbs;

    /// Its words with `separator` between them.
    [[nodiscard]] std::string Name(const char* separator) const;
};

[[nodiscard]] HelpCommand HelpTreeOf(const CLI::App& app);

}  // namespace qel
