#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Bash.h"
#include "Command.h"
#include "Completion.h"
#include "HelpFormatter.h"
#include "HelpTree.h"
#include "ManPage.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// A command that has all that CLI11 knows and the tree must understand.
class AnyCommand : public testing::Test {
protected:
    AnyCommand() : app_("Does things", "tool") {
        app_.set_version_flag("--version", "tool 7");
        app_.footer("Exit status: 0 or 9.");
        app_.add_option("--secret", text_, "Not shown")->group("");
        CLI::App* const show = app_.add_subcommand("show", "Shows -- it's \\all");
        show->add_option("NAME", text_, "A ring or a block")->required();
        show->add_option("FILE", texts_, "Files");
        show->add_option("-s,--sort", text_, "Order")->check(CLI::IsMember({"size", "age"}));
        show->add_option("--level", number_, "Level")->check(CLI::Range(2, 4));
        show->add_option("--port", number_, "Port")->check(CLI::Range(1, 65535));
        show->add_option("--factor", real_, "Factor")->check(CLI::Range(0.5, 1.5));
        show->add_option("--mode", number_, "Mode")
            ->transform(CLI::CheckedTransformer(std::map<std::string, int>{{"off", 0}, {"on", 1}}))
            ->option_text("MODE [off]");
        show->add_option("--into", text_, "Where to")->option_text("FOLDER");
        show->add_option("--like", text_, "Another")->option_text("NAME");
        show->add_option("--of", text_, "Semaphores, not strings")->option_text("NAME");
        show->add_flag("--all,!--none", flag_, "All of them");
        show->add_option_group("more")->add_option("--grouped", text_, "In a group");
        show->footer(".starts with a dot.\n\nExample:\n  'qev show' and qev x");
        app_.add_subcommand("secret", "Not shown")->group("");
        CLI::App* const set = app_.add_subcommand("set", "Sets");
        set->add_subcommand("one", "Sets one")->footer("Exit status: 3.");
    }

    [[nodiscard]] HelpCommand Tree() const { return HelpTreeOf(app_); }

    [[nodiscard]] HelpOption Option(const std::string& name) const {
        const HelpCommand tree = Tree();
        for (const auto* const list : {&tree.verbs[0].options, &tree.verbs[0].arguments}) {
            for (const HelpOption& option : *list) {
                if (option.names.back() == name) {
                    return option;
                }
            }
        }
        ADD_FAILURE() << name;
        return {};
    }

    [[nodiscard]] std::vector<std::string> Offered(const std::vector<std::string>& words) const {
        WriteFile(folder_.Path("tool"), CompletionOf(Tree()));
        return test::Offered(folder_.Path("tool"), "_tool", words);
    }

    CLI::App app_;
    std::string text_;
    std::vector<std::string> texts_;
    int number_ = 0;
    double real_ = 0;
    bool flag_ = false;
    TemporaryFolder folder_;
};

TEST_F(AnyCommand, HasItsVerbsInOrderWithoutTheHiddenOnes) {
    const HelpCommand tree = Tree();
    EXPECT_THAT(tree.words, ElementsAre("tool"));
    EXPECT_EQ(tree.version, "tool 7");
    EXPECT_EQ(tree.summary, "Does things");
    ASSERT_EQ(tree.verbs.size(), 2U);
    EXPECT_THAT(tree.verbs[0].words, ElementsAre("tool", "show"));
    ASSERT_EQ(tree.verbs[1].verbs.size(), 1U);
    EXPECT_EQ(tree.verbs[1].verbs[0].Name(" "), "tool set one");
    ASSERT_EQ(tree.options.size(), 2U) << "a hidden option is shown";
    EXPECT_THAT(tree.options[0].names, ElementsAre("-h", "--help"));
    EXPECT_THAT(tree.options[1].names, ElementsAre("--version"));
}

TEST_F(AnyCommand, HasArgumentsThatMustBeGivenOrRepeat) {
    const HelpOption name = Option("NAME");
    EXPECT_EQ(name.value, "NAME");
    EXPECT_TRUE(name.required);
    EXPECT_FALSE(name.repeats);
    const HelpOption file = Option("FILE");
    EXPECT_FALSE(file.required);
    EXPECT_TRUE(file.repeats);
}

TEST_F(AnyCommand, HasOptionsWithWhatTheirChecksAllow) {
    EXPECT_THAT(Option("--sort").names, ElementsAre("-s", "--sort"));
    EXPECT_THAT(Option("--sort").choices, ElementsAre("size", "age"));
    EXPECT_THAT(Option("--level").choices, ElementsAre("2", "3", "4"));
    EXPECT_THAT(Option("--mode").choices, ElementsAre("off", "on"));
    EXPECT_EQ(Option("--mode").value, "MODE");
    EXPECT_EQ(Option("--mode").preset, "off");
    for (const char* const name : {"--port", "--factor", "--into"}) {
        EXPECT_THAT(Option(name).choices, ElementsAre()) << name;
        EXPECT_NE(Option(name).value, "") << name;
    }
    EXPECT_EQ(Option("--grouped").text, "In a group");
}

TEST_F(AnyCommand, HasFlagsWithoutAValue) {
    const HelpCommand tree = Tree();
    EXPECT_EQ(tree.options[0].value, "");
    bool found = false;
    for (const HelpOption& option : tree.verbs[0].options) {
        if (option.text == "All of them") {
            EXPECT_EQ(option.value, "");
            EXPECT_EQ(option.names.front().substr(0, 5), "--all");
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(AnyCommand, HasPagesInWhichNothingIsTakenForARequest) {
    const HelpCommand tree = Tree();
    const std::string page = ManPageOf(tree.verbs[0], tree, &tree);
    EXPECT_THAT(page, HasSubstr("\ntool\\-show \\- Shows \\-\\- it's \\eall\n"));
    EXPECT_THAT(page, HasSubstr("\n\\&.starts with a dot.\n"));
    EXPECT_THAT(page, HasSubstr(".SH EXAMPLES\n.RS 4\n.nf\n\\&'qev show' and qev x\n.fi\n.RE\n"));
    EXPECT_THAT(page, HasSubstr("\\fBtool show\\fR \\fINAME\\fR [\\fIFILE\\fR...] "
                                "[\\fIOPTION\\fR]...\n"));
    EXPECT_THAT(page, HasSubstr(".TP\n\\fB\\-s\\fR, \\fB\\-\\-sort\\fR \\fITEXT\\fR\n"
                                "Order. One of: size, age.\n"));
    EXPECT_THAT(page, HasSubstr("\nMode. One of: off, on. If not given: off.\n"));
    EXPECT_THAT(page, HasSubstr("\nA ring or a block. Must be given.\n"));
}

TEST_F(AnyCommand, HasTheExitStatusOfTheWholeUnlessAVerbHasItsOwn) {
    const HelpCommand tree = Tree();
    const HelpCommand& set = tree.verbs[1];
    EXPECT_THAT(ManPageOf(tree.verbs[0], tree, &tree), HasSubstr(".SH EXIT STATUS\n0 or 9.\n"));
    EXPECT_THAT(ManPageOf(set.verbs[0], tree, &set), HasSubstr(".SH EXIT STATUS\n3.\n"));
}

TEST_F(AnyCommand, HasPagesThatLeadToTheOthers) {
    const HelpCommand tree = Tree();
    const HelpCommand& set = tree.verbs[1];
    EXPECT_EQ(PageName(set.verbs[0]), "tool-set-one");
    EXPECT_THAT(ManPageOf(set.verbs[0], tree, &set),
                HasSubstr(".SH SEE ALSO\n\\fBtool\\fR(1),\n\\fBtool\\-set\\fR(1)\n"));
    EXPECT_THAT(ManPageOf(set, tree, &tree),
                HasSubstr("\\fBtool\\fR(1),\n\\fBtool\\-set\\-one\\fR(1),\n\\fBtool\\-show"));
    EXPECT_THAT(ManPageOf(tree, tree, nullptr), Not(HasSubstr("\\fBtool\\fR(1)")));
}

TEST(HelpFormatter, FillsLinesUpToAHundredColumnsButLeavesWhatIsToStay) {
    CLI::App app(std::string(60, 'd') + " " + std::string(60, 'D'), "tool");
    app.formatter(std::make_shared<HelpFormatter>());
    std::string text;
    app.add_option("--one", text, std::string(68, 'o') + " x")->option_text("N");
    app.add_option("--two", text, std::string(69, 't') + " yy")->option_text("N");
    CLI::App* const verb =
        app.add_subcommand("verb", std::string(40, 'v') + " " + std::string(40, 'V'));
    app.footer("A\nparagraph.\n\nExample:\n  " + std::string(120, 'q') + "\n  qev\n\nEnd:\nnot");
    verb->footer(std::string(99, 'f') + " g h");
    const std::string column(30, ' ');
    EXPECT_EQ(app.help(), std::string(60, 'd') + "\n" + std::string(60, 'D') + R"(
Usage: tool [OPTIONS] [SUBCOMMAND]

Options:
  -h,--help                   Print this help message and exit
  --one N                     )" +
                              std::string(68, 'o') + " x\n  --two N                     " +
                              std::string(69, 't') + "\n" + column + R"(yy

Subcommands:
  verb                        )" +
                              std::string(40, 'v') + "\n" + column + std::string(40, 'V') +
                              "\n\nA paragraph.\n\nExample:\n  " + std::string(120, 'q') +
                              "\n  qev\n\nEnd: not\n");
    EXPECT_THAT(verb->help(), testing::EndsWith("\n\n" + std::string(99, 'f') + "\ng h\n"));
}

TEST_F(AnyCommand, HasNamesOfTheObjectsThatTheirHelpTellsOf) {
    const std::string script = CompletionOf(Tree());
    EXPECT_THAT(script, HasSubstr("arguments=( 'rings blocks' 'files' )"));
    EXPECT_THAT(script, HasSubstr("'tool show --like') kind='rings blocks semaphores' ;;"));
    EXPECT_THAT(script, HasSubstr("'tool show --of') kind='semaphores' ;;"));
}

TEST_F(AnyCommand, IsCompletedFromItsTree) {
    WriteFile(folder_.Path("a file"), "");
    ASSERT_EQ(OutputOf("mkdir " + ShellWord(folder_.Path("a folder"))), "");
    const std::string file = folder_.Path("a file");
    const std::string folder = folder_.Path("a folder");
    EXPECT_THAT(Offered({"tool", ""}), ElementsAre("show", "set"));
    EXPECT_THAT(Offered({"tool", "set", ""}), ElementsAre("one"));
    EXPECT_THAT(Offered({"tool", "show", "--sort", ""}), ElementsAre("size", "age"));
    EXPECT_THAT(Offered({"tool", "show", "-s", "s"}), ElementsAre("size"));
    EXPECT_THAT(Offered({"tool", "show", "--sort", "="}), ElementsAre("size", "age"));
    EXPECT_THAT(Offered({"tool", "show", "--sort", "=", "a"}), ElementsAre("age"));
    EXPECT_THAT(Offered({"tool", "show", "--level", ""}), ElementsAre("2", "3", "4"));
    EXPECT_THAT(Offered({"tool", "show", "--port", ""}), ElementsAre());
    EXPECT_THAT(Offered({"tool", "show", "--into", folder_.Path("a")}), ElementsAre(folder));
    // The first argument is a name; files follow, as many as there are.
    EXPECT_THAT(Offered({"tool", "show", "x", folder_.Path("a ")}), ElementsAre(file, folder));
    EXPECT_THAT(Offered({"tool", "show", "--sort", "age", "x", "y", folder_.Path("a f")}),
                ElementsAre(file, folder));
    EXPECT_THAT(Offered({"tool", "show", "--g"}), ElementsAre("--grouped"));
    EXPECT_THAT(Offered({"tool", "show", "x", "--l"}), ElementsAre("--level", "--like"));
}

}  // namespace
}  // namespace qel::test
