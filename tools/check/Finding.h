#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qel {

enum class Severity {
    Fault,    ///< something is broken
    Warning,  ///< something may break, or keeps others waiting
    Note,     ///< worth knowing; nothing is wrong
};

/// One thing that was found, in plain words.
struct Finding {
    Severity severity = Severity::Fault;
    std::string code;    ///< short and stable, for scripts, as "record-handed-on"
    std::string object;  ///< "ring camera"; "machine" for what is no object
    std::string text;
    std::string mend{};  ///< what mends it, most often a command; empty if nothing is to be done
};
using Findings = std::vector<Finding>;

/// "fault", "warning", "note".
[[nodiscard]] std::string_view WordOf(Severity severity) noexcept;

/// Puts `more` behind `all`.
void Add(Findings& all, const Findings& more);

/// True if there is anything but notes.
[[nodiscard]] bool IsAnythingWrong(const Findings& findings) noexcept;

/// `word` as a shell takes it for one argument, with nothing in it that controls a terminal.
[[nodiscard]] std::string ShellWord(std::string_view word);

/// The command `qev verb name`, to be pasted into a shell: also for names that look like options.
[[nodiscard]] std::string QevCommand(std::string_view verb, std::string_view name,
                                     std::string_view options = {});

}  // namespace qel
