#include "Bash.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sstream>

namespace qel::test {

std::string ShellWord(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return word + "'";
}

std::string OutputOf(const std::string& command) {
    std::string output;
    FILE* const shell = popen(command.c_str(), "re");
    EXPECT_NE(shell, nullptr);
    std::array<char, 4096> part{};
    for (std::size_t count = 1; shell != nullptr && count > 0;) {
        count = fread(part.data(), 1, part.size(), shell);
        output.append(part.data(), count);
    }
    EXPECT_EQ(pclose(shell), 0) << command;
    return output;
}

std::vector<std::string> Offered(const std::string& completion, const std::string& function,
                                 const std::vector<std::string>& words) {
    std::string script = "set -u; source " + ShellWord(completion) + "; COMP_WORDS=(";
    for (const std::string& word : words) {
        script += " " + ShellWord(word);
    }
    script += " ); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " + function +
              "; for word in \"${COMPREPLY[@]}\"; do printf '%s\\n' \"$word\"; done";
    std::istringstream output(OutputOf("bash --norc -c " + ShellWord(script) + " 2>&1"));
    std::vector<std::string> offered;
    for (std::string word; std::getline(output, word);) {
        offered.push_back(word);
    }
    return offered;
}

}  // namespace qel::test
