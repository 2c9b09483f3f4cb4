#include "Completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <utility>

#include "CompletionScript.h"

namespace qel {
namespace {

/// `text` as one word of the shell, which changes nothing in it.
std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

/// The words of `text`, in small letters and without what stands around them.
std::vector<std::string> WordsOf(const std::string& text) {
    std::vector<std::string> words(1);
    for (const char c : text) {
        const auto letter = static_cast<unsigned char>(c);
        if (std::isalpha(letter) != 0) {
            words.back() += static_cast<char>(std::tolower(letter));
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    return words;
}

/// The kinds of objects that the help of a NAME tells of.
std::string ObjectsNamedIn(const std::string& text) {
    const std::vector<std::string> words = WordsOf(text);
    std::string kinds;
    for (const std::string kind : {"ring", "block", "semaphore"}) {
        if (std::count(words.begin(), words.end(), kind) > 0 ||
            std::count(words.begin(), words.end(), kind + "s") > 0) {
            kinds += kind + "s ";
        }
    }
    return kinds.empty() ? "rings blocks semaphores" : kinds.substr(0, kinds.size() - 1);
}

/// What the value of an option or argument can be, as the script reads it.
std::string KindOf(const HelpOption& option) {
    if (!option.choices.empty()) {
        return fmt::format("choices {}", fmt::join(option.choices, " "));
    }
    constexpr std::array<std::pair<std::string_view, std::string_view>, 8> kKinds{
        {{"file", "files"},
         {"folder", "folders"},
         {"directory", "folders"},
         {"user", "users"},
         {"group", "groups"},
         {"ring", "rings"},
         {"block", "blocks"},
         {"semaphore", "semaphores"}}};
    for (const std::string& word : WordsOf(option.value)) {
        for (const auto& [value, kind] : kKinds) {
            if (word == value) {
                return std::string(kind);
            }
        }
        if (word == "name") {
            return ObjectsNamedIn(option.text);
        }
    }
    return "unknown";
}

/// The branch that tells what may follow `command`.
std::string BranchOf(const HelpCommand& command) {
    std::string verbs;
    for (const HelpCommand& verb : command.verbs) {
        verbs += Quoted(verb.words.back()) + " ";
    }
    std::string options;
    for (const HelpOption& option : command.options) {
        for (const std::string& name : option.names) {
            options += Quoted(name) + " ";
        }
    }
    std::string arguments;
    for (const HelpOption& argument : command.arguments) {
        arguments += Quoted(KindOf(argument)) + " ";
    }
    const bool goesOn = !command.arguments.empty() && command.arguments.back().repeats;
    return fmt::format(
        "        {})\n            verbs=( {})\n            options=( {})\n"
        "            arguments=( {})\n            more={}\n            ;;\n",
        Quoted(command.Name(" ")), verbs, options, arguments,
        goesOn ? Quoted(KindOf(command.arguments.back())) : "");
}

/// The branches that tell what the values of the options of `command` are.
std::string ValueBranchesOf(const HelpCommand& command) {
    std::string branches;
    for (const HelpOption& option : command.options) {
        if (option.value.empty()) {
            continue;
        }
        std::string patterns;
        for (const std::string& name : option.names) {
            patterns += (patterns.empty() ? "" : " | ") + Quoted(command.Name(" ") + " " + name);
        }
        branches += fmt::format("        {}) kind={} ;;\n", patterns, Quoted(KindOf(option)));
    }
    return branches;
}

/// What `describe` says of `command` and of all below it.
std::string OfAll(const HelpCommand& command, std::string (*describe)(const HelpCommand&)) {
    std::string text = describe(command);
    for (const HelpCommand& verb : command.verbs) {
        text += OfAll(verb, describe);
    }
    return text;
}

}  // namespace

std::string CompletionOf(const HelpCommand& root) {
    std::string script = kCompletionScript;
    for (const auto& [mark, text] : {std::pair("@COMMANDS@", OfAll(root, BranchOf)),
                                     std::pair("@VALUES@", OfAll(root, ValueBranchesOf)),
                                     std::pair("@COMMAND@", root.Name(" "))}) {
        const std::string_view place = mark;
        for (auto at = script.find(place); at != std::string::npos; at = script.find(place)) {
            script.replace(at, place.size(), text);
        }
    }
    return script;
}

}  // namespace qel
