#include "HelpTree.h"

#include <charconv>
#include <cstddef>
#include <string_view>

namespace qel {
namespace {

std::string Trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(' ');
    const auto last = text.find_last_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

/// The part of `text` between `open` and the next `close`; empty if there is none.
std::string Between(const std::string& text, std::string_view open, char close) {
    const auto at = text.find(open);
    const auto start = at + open.size();
    const auto end = at == std::string::npos ? at : text.find(close, start);
    return end == std::string::npos ? "" : text.substr(start, end - start);
}

/// "a->1,b->2" or "a,b" as a and b.
std::vector<std::string> MembersOf(const std::string& list) {
    std::vector<std::string> members;
    for (const std::string& member : CLI::detail::split(list, ',')) {
        members.push_back(member.substr(0, member.find("->")));
    }
    return members;
}

/// "1 - 4" as 1, 2, 3 and 4; nothing for more numbers than one wants to choose from.
std::vector<std::string> NumbersOf(const std::string& range) {
    constexpr long kMost = 10;
    constexpr std::string_view kTo = " - ";
    const auto at = range.find(kTo);
    if (at == std::string::npos) {
        return {};
    }
    long first = 0;
    long last = 0;
    const char* const end = range.data() + range.size();
    const bool whole =
        std::from_chars(range.data(), range.data() + at, first).ptr == range.data() + at &&
        std::from_chars(range.data() + at + kTo.size(), end, last).ptr == end;
    std::vector<std::string> numbers;
    if (whole && first >= 0 && last < first + kMost) {
        for (long number = first; number <= last; ++number) {
            numbers.push_back(std::to_string(number));
        }
    }
    return numbers;
}

/// The checks of an option describe themselves in the name of its type.
std::vector<std::string> ChoicesOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::string members = Between(type, "{", '}');
    return members.empty() ? NumbersOf(Between(type, " in [", ']')) : MembersOf(members);
}

void TakeValue(const CLI::Option& option, HelpOption& help) {
    const std::string text = Trimmed(option.get_option_text());
    if (text.empty()) {
        const std::string type = option.get_type_name();
        help.value = type.substr(0, type.find(':'));
        help.preset = option.get_default_str();
        return;
    }
    const auto bracket = text.find('[');
    help.value = Trimmed(text.substr(0, bracket));
    help.preset = Between(text, "[", ']');
}

HelpOption HelpOf(const CLI::Option& option) {
    HelpOption help;
    const bool isArgument = !option.nonpositional();
    help.names = CLI::detail::split(option.get_name(isArgument, !isArgument), ',');
    help.text = option.get_description();
    help.required = option.get_required();
    help.repeats = option.get_items_expected_max() > 1;
    if (option.get_items_expected_max() > 0) {
        help.choices = ChoicesOf(option);
        TakeValue(option, help);
        if (isArgument && Trimmed(option.get_option_text()).empty()) {
            help.value = help.names.front();
        }
    }
    return help;
}

void TakeOptions(const CLI::App& app, HelpCommand& command) {
    const auto isShown = [](const CLI::Option* option) { return !option->get_group().empty(); };
    for (const CLI::Option* const option : app.get_options(isShown)) {
        (option->nonpositional() ? command.options : command.arguments).push_back(HelpOf(*option));
    }
}

HelpCommand TreeOf(const CLI::App& app, const HelpCommand* above, const std::string& version) {
    HelpCommand command;
    if (above != nullptr) {
        command.words = above->words;
    }
    command.words.push_back(app.get_name());
    command.version = version;
    command.summary = app.get_description();
    command.notes = NotesOf(app.get_footer());
    TakeOptions(app, command);
    const auto isShown = [](const CLI::App* below) { return !below->get_group().empty(); };
    for (const CLI::App* const below : app.get_subcommands(isShown)) {
        if (below->get_name().empty()) {  // only a group of options
            TakeOptions(*below, command);
        } else {
            command.verbs.push_back(TreeOf(*below, &command, version));
        }
    }
    return command;
}

}  // namespace

std::string HelpCommand::Name(const char* separator) const {
    return CLI::detail::join(words, separator);
}

HelpCommand HelpTreeOf(const CLI::App& app) {
    return TreeOf(app, nullptr, app.version());
}

}  // namespace qel
