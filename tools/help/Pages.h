#pragma once

#include <CLI/CLI.hpp>

namespace qel {

/// Adds the option --write-pages FOLDER to the whole command, hidden from its help. It writes the
/// manual pages of the command and of all its verbs (man1/) and the completion for bash
/// (completions/) into that folder, and ends the command. Whoever builds the command uses it.
void AddPagesOption(CLI::App& app);

}  // namespace qel
