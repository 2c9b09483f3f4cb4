#include "ManPage.h"

#include <fmt/format.h>

#include <sstream>

namespace qel {
namespace {

/// `text` as roff prints it unchanged. Each "-" is the one that can be copied into a shell.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        const bool startsLine = escaped.empty() || escaped.back() == '\n';
        if (startsLine && (c == '.' || c == '\'')) {
            escaped += "\\&";  // not a request
        }
        if (c == '\\') {
            escaped += "\\e";
        } else if (c == '-') {
            escaped += "\\-";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string Bold(const std::string& text) {
    return "\\fB" + Escaped(text) + "\\fR";
}

std::string Slanted(const std::string& text) {
    return "\\fI" + Escaped(text) + "\\fR";
}

std::string AsSentence(const std::string& text) {
    return text.empty() || text.back() == '.' ? text : text + ".";
}

void AppendBlocks(std::string& page, const std::vector<HelpBlock>& blocks, bool isFirst) {
    for (const HelpBlock& block : blocks) {
        page += isFirst ? "" : ".PP\n";
        isFirst = false;
        page += block.literal ? ".RS 4\n.nf\n" + Escaped(block.text) + ".fi\n.RE\n"
                              : Escaped(block.text) + "\n";
    }
}

void AppendSection(std::string& page, const char* name, const std::vector<HelpBlock>& blocks) {
    if (!blocks.empty()) {
        page += fmt::format(".SH {}\n", name);
        AppendBlocks(page, blocks, true);
    }
}

/// "--size BYTES" with its value, if it takes one.
std::string Call(const HelpOption& option, const std::string& name) {
    return Bold(name) + (option.value.empty() ? "" : " " + Slanted(option.value));
}

std::string Synopsis(const HelpCommand& command) {
    std::string line = Bold(command.Name(" "));
    for (const HelpOption& argument : command.arguments) {
        const std::string name = Slanted(argument.value) + (argument.repeats ? "..." : "");
        line += argument.required ? " " + name : " [" + name + "]";
    }
    for (const HelpOption& option : command.options) {
        if (option.required) {
            line += " " + Call(option, option.names.back());
        }
    }
    line += " [" + Slanted("OPTION") + "]...";
    return line + (command.verbs.empty() ? "" : " " + Slanted("VERB") + "...");
}

/// An argument's or option's help as the list of options has it.
std::string Explained(const HelpOption& option) {
    std::string text = AsSentence(option.text);
    if (!option.choices.empty()) {
        text += fmt::format(" One of: {}.", fmt::join(option.choices, ", "));
    }
    if (!option.preset.empty()) {
        text += fmt::format(" If not given: {}.", option.preset);
    }
    if (option.required) {
        text += " Must be given.";
    }
    return Escaped(text);
}

std::string Listed(const HelpCommand& command) {
    std::string list;
    for (const HelpOption& argument : command.arguments) {
        list += fmt::format(".TP\n{}\n{}\n", Slanted(argument.value), Explained(argument));
    }
    for (const HelpOption& option : command.options) {
        std::string names;
        for (const std::string& name : option.names) {
            names += (names.empty() ? "" : ", ") +
                     (&name == &option.names.back() ? Call(option, name) : Bold(name));
        }
        list += fmt::format(".TP\n{}\n{}\n", names, Explained(option));
    }
    return list;
}

std::string Reference(const HelpCommand& command) {
    return Bold(PageName(command)) + "(1)";
}

std::string ListOfVerbs(const HelpCommand& command) {
    std::string list;
    for (const HelpCommand& verb : command.verbs) {
        list += fmt::format(".TP\n{}\n{} See {}.\n", Bold(verb.Name(" ")),
                            Escaped(AsSentence(verb.summary)), Reference(verb));
    }
    return list;
}

std::string SeeAlso(const HelpCommand& command, const HelpCommand& root,
                    const HelpCommand* parent) {
    std::string list;
    const auto add = [&](const HelpCommand& other) {
        if (&other != &command) {
            list += (list.empty() ? "" : ",\n") + Reference(other);
        }
    };
    add(root);
    if (parent != nullptr && parent != &root) {
        add(*parent);
    }
    for (const HelpCommand& verb : command.verbs) {
        add(verb);
    }
    if (parent != nullptr) {
        for (const HelpCommand& neighbour : parent->verbs) {
            add(neighbour);
        }
    }
    return list + "\n";
}

}  // namespace

std::string PageName(const HelpCommand& command) {
    return command.Name("-");
}

std::string ManPageOf(const HelpCommand& command, const HelpCommand& root,
                      const HelpCommand* parent) {
    std::string title = PageName(command);
    std::string page = fmt::format(
        ".\\\" Made from what \"{} --help\" says.\n.TH {} 1 \"\" \"{}\" \"{} manual\"\n"
        ".nh\n.ad l\n",  // names of commands are not to be parted
        command.Name(" "), Escaped(title), Escaped(root.version), root.Name(" "));
    page += fmt::format(".SH NAME\n{} \\- {}\n", Escaped(title), Escaped(command.summary));
    page += fmt::format(".SH SYNOPSIS\n{}\n", Synopsis(command));
    page += fmt::format(".SH DESCRIPTION\n{}\n", Escaped(AsSentence(command.summary)));
    AppendBlocks(page, command.notes.description, false);
    if (!command.verbs.empty()) {
        page += ".SH VERBS\n" + ListOfVerbs(command);
    }
    page += ".SH OPTIONS\n" + Listed(command);
    AppendSection(
        page, "EXIT STATUS",
        command.notes.exitStatus.empty() ? root.notes.exitStatus : command.notes.exitStatus);
    AppendSection(page, "FILES", command.notes.files);
    AppendSection(page, "EXAMPLES", command.notes.examples);
    page += ".SH SEE ALSO\n" + SeeAlso(command, root, parent);
    return page;
}

}  // namespace qel
