#pragma once

#include <string>
#include <vector>

#include "Command.h"

namespace qel::test {

/// A terminal in which a command of the shell runs: a session of tmux with a server of its own,
/// which ends with this object.
class Terminal {
public:
    static constexpr const char* kUtf8 = "C.UTF-8";

    /// Why there can be no terminal here; empty if there can.
    static std::string WhyNone();

    /// @param command  for the shell
    Terminal(const std::string& command, int width, int height, const std::string& locale = kUtf8);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// What stands on the screen, a line each, without the space at their ends.
    [[nodiscard]] std::vector<std::string> Screen() const;

    /// Waits until the screen holds all of `texts`, and none of `others`, and gives it.
    [[nodiscard]] std::vector<std::string> WaitFor(
        const std::vector<std::string>& texts, const std::vector<std::string>& others = {}) const;

    /// Presses keys, by the names that tmux has for them.
    void Press(const std::string& keys) const;
    void Resize(int width, int height) const;

    [[nodiscard]] std::string Path(const std::string& file) const { return folder_.Path(file); }

private:
    [[nodiscard]] std::string Tmux(const std::string& arguments) const;

    TemporaryFolder folder_;
    std::string locale_;
};

/// The lines as one text.
[[nodiscard]] std::string Joined(const std::vector<std::string>& lines);

}  // namespace qel::test
