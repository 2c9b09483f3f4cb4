#pragma once

#include <string>
#include <vector>

namespace qel::test {

/// What bash offers, in its order, where the last of `words` is typed up to its end, once the file
/// `completion` has been read. `function` is the one that completes.
[[nodiscard]] std::vector<std::string> Offered(const std::string& completion,
                                               const std::string& function,
                                               const std::vector<std::string>& words);

/// Runs `command` in a shell.
/// @return all that it writes
[[nodiscard]] std::string OutputOf(const std::string& command);

/// `text` as one word of a shell.
[[nodiscard]] std::string ShellWord(const std::string& text);

}  // namespace qel::test
