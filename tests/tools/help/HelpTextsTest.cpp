#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Bash.h"
#include "Command.h"

namespace qel::test {
namespace {

using Words = std::vector<std::string>;

std::vector<std::string> LinesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// What a user reads who asks a command for its help, and what can be learnt from that.
struct Help {
    Words words;  ///< of the command, without "qev"
    std::vector<std::string> lines;
    Words verbs;
    Words options;  ///< "-h" and "--help" are two

    [[nodiscard]] std::string Name(const std::string& separator) const {
        std::string name = "qev";
        for (const std::string& word : words) {
            name += separator + word;
        }
        return name;
    }
};

/// The column in which the help of a verb or option stands.
constexpr std::size_t kColumn = 30;

/// True if the verb or option in the line `at` has a help behind it or, if it is long, under it.
bool IsExplained(const std::vector<std::string>& lines, std::size_t at) {
    const std::string blank(kColumn, ' ');
    const std::string& line = lines[at];
    if (line.size() > kColumn && line[kColumn - 1] == ' ' && line[kColumn] != ' ') {
        return true;
    }
    return at + 1 < lines.size() && lines[at + 1].size() > kColumn &&
           lines[at + 1].compare(0, kColumn, blank) == 0 && lines[at + 1][kColumn] != ' ';
}

Help HelpOf(const Words& words) {
    Help help;
    help.words = words;
    Words arguments = words;
    arguments.emplace_back("--help");
    const CommandResult result = RunQev(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    help.lines = LinesOf(result.out);
    std::string part;
    for (std::size_t at = 0; at < help.lines.size(); ++at) {
        const std::string& line = help.lines[at];
        const bool isEntry = line.size() > 3 && line.compare(0, 2, "  ") == 0 && line[2] != ' ';
        if (!line.empty() && line[0] != ' ') {
            part = line;
        }
        if (!isEntry || (part != "Options:" && part != "Subcommands:" && part != "Positionals:")) {
            continue;
        }
        EXPECT_TRUE(IsExplained(help.lines, at)) << help.Name(" ") << ": " << line;
        const std::string entry = line.substr(2, line.find(' ', 2) - 2);
        if (part == "Subcommands:") {
            help.verbs.push_back(entry);
        } else if (part == "Options:") {
            std::istringstream names(entry);
            for (std::string name; std::getline(names, name, ',');) {
                help.options.push_back(name);
            }
        }
    }
    return help;
}

std::vector<Help> AllBelow(const Words& words) {
    std::vector<Help> all{HelpOf(words)};
    const Words verbs = all.front().verbs;
    for (const std::string& verb : verbs) {
        Words below = words;
        below.push_back(verb);
        for (Help& help : AllBelow(below)) {
            all.push_back(std::move(help));
        }
    }
    return all;
}

/// The help of the command and of all verbs, and the files that the command writes.
class HelpTexts : public testing::Test {
protected:
    static void SetUpTestSuite() {
        all_ = new std::vector<Help>(AllBelow({}));
        folder_ = new TemporaryFolder;
        const CommandResult result = RunQev({"--write-pages", folder_->Path()});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "");
    }
    static void TearDownTestSuite() {
        delete all_;
        delete folder_;
    }

    static const std::vector<Help>& All() { return *all_; }
    static std::string Path(const std::string& file) { return folder_->Path(file); }
    static std::string PagePath(const Help& help) { return Path("man1/" + help.Name("-") + ".1"); }

    /// The page as its reader has it in front of him, more or less.
    static std::string PageOf(const Help& help) {
        const std::string source = ReadFile(PagePath(help));
        std::string text;
        for (std::size_t i = 0; i < source.size(); ++i) {
            if (source[i] == '\\' && source[++i] == 'f') {
                ++i;  // a font
            } else {
                text += source[i];
            }
        }
        return text;
    }

private:
    static inline std::vector<Help>* all_ = nullptr;
    static inline TemporaryFolder* folder_ = nullptr;
};

TEST_F(HelpTexts, TellOfAllThatIsThereInAHundredColumns) {
    EXPECT_GE(All().size(), 16U);
    EXPECT_THAT(All().front().verbs, testing::IsSupersetOf({"pipeline", "block", "sem"}));
    EXPECT_THAT(All().front().options, testing::Not(testing::Contains("--write-pages")));
    for (const Help& help : All()) {
        EXPECT_THAT(help.options, testing::IsSupersetOf({"-h", "--help"})) << help.Name(" ");
        for (const std::string& line : help.lines) {
            EXPECT_LE(line.size(), 100U) << help.Name(" ") << ": " << line;
        }
    }
}

TEST_F(HelpTexts, HaveAPageEachAndThereAreNoOthers) {
    std::set<std::string> wanted;
    for (const Help& help : All()) {
        wanted.insert(help.Name("-") + ".1");
    }
    std::set<std::string> found;
    for (const auto& file : std::filesystem::directory_iterator(Path("man1"))) {
        found.insert(file.path().filename());
    }
    EXPECT_EQ(found, wanted);
}

TEST_F(HelpTexts, HaveAllOptionsAndVerbsAndAnExampleInTheirPage) {
    for (const Help& help : All()) {
        const std::string page = PageOf(help);
        for (const char* const section :
             {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "SEE ALSO"}) {
            EXPECT_THAT(page, testing::HasSubstr("\n.SH " + std::string(section) + "\n"));
        }
        const auto at = page.find("\n.SH OPTIONS\n");
        const std::string listed = page.substr(at, page.find("\n.SH EXIT") - at);
        for (const std::string& option : help.options) {
            EXPECT_THAT(listed, testing::ContainsRegex("[\n ]" + option + "[ ,\n]"))
                << help.Name(" ");
        }
        if (help.verbs.empty()) {
            EXPECT_THAT(page, testing::HasSubstr("\n.SH EXAMPLES\n")) << help.Name(" ");
        }
        for (const std::string& verb : help.verbs) {
            EXPECT_THAT(page, testing::HasSubstr("\n" + help.Name(" ") + " " + verb + "\n"));
            EXPECT_THAT(page, testing::HasSubstr("See " + help.Name("-") + "-" + verb + "(1)."));
        }
    }
}

TEST_F(HelpTexts, HaveAllOptionsAndVerbsInTheCompletion) {
    for (const Help& help : All()) {
        Words words{"qev"};
        words.insert(words.end(), help.words.begin(), help.words.end());
        words.emplace_back("-");
        EXPECT_EQ(Offered(Path("completions/qev"), "_qev", words), help.options);
        if (!help.verbs.empty()) {
            words.back() = "";
            EXPECT_EQ(Offered(Path("completions/qev"), "_qev", words), help.verbs);
        }
    }
}

TEST_F(HelpTexts, HavePagesThatManReadsWithoutAWarning) {
    if (OutputOf("command -v man && command -v groff || true").find("groff") == std::string::npos) {
        GTEST_SKIP() << "man and groff are not there: package man-db";
    }
    std::string files;
    for (const Help& help : All()) {
        files += " " + ShellWord(PagePath(help));
    }
    EXPECT_EQ(OutputOf("MAN_DISABLE_SECCOMP=1 LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z" +
                       files + " 2>&1 >" + ShellWord(Path("formatted"))),
              "");
    EXPECT_THAT(ReadFile(Path("formatted")), testing::HasSubstr("STATUS"));
}

TEST(HelpPages, ThatCannotBeWrittenAreAnError) {
    const TemporaryFolder folder;
    WriteFile(folder.Path("file"), "");
    const CommandResult result = RunQev({"--write-pages", folder.Path("file")});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, testing::StartsWith("qev: "));
    EXPECT_EQ(Lines(result.err), 1);
}

}  // namespace
}  // namespace qel::test
