#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Cells.h"
#include "Command.h"
#include "LiveChain.h"
#include "RingUnderTest.h"
#include "Terminal.h"

namespace qel::test {
namespace {

using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

const std::string kQev = QEV_COMMAND;

/// The line that `text` begins or that holds it.
std::string LineWith(const std::vector<std::string>& screen, const std::string& text) {
    for (const std::string& line : screen) {
        if (line.find(text) != std::string::npos) {
            return line;
        }
    }
    return "";
}

class LiveView : public testing::Test {
protected:
    void SetUp() override {
        const std::string why = Terminal::WhyNone();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
    }

    /// With the chain's ring, and that of `idle_`, alone.
    [[nodiscard]] std::string Top(const std::string& options = "") const {
        return kQev + " top --interval 0.1 " + chain_.Name() + " " + idle_.Name() + " " + options;
    }

    /// As long as a name, so that columns are where they are expected.
    [[nodiscard]] std::string NodeText(unsigned node) const {
        const pid_t pid = node == 0 ? chain_.Writer() : chain_.Reader();
        return std::to_string(node) + (node == 0 ? " producer " : " sink     ") +
               std::to_string(pid) + " qev-";
    }

    LiveChain chain_;
    RingUnderTest idle_;
};

TEST_F(LiveView, ShowsAChainAtWorkInAnySizeOfTerminal) {
    const Terminal terminal("exec " + Top(), 80, 24);
    for (const int width : {80, 200, 80}) {
        const int height = width == 80 ? 24 : 50;
        terminal.Resize(width, height);
        const std::string end = width == 80 ? "space pause" : "bar: 1-4 waits";
        const auto screen = terminal.WaitFor(
            {NodeText(0), NodeText(1), "live", end},
            width == 80 ? std::vector<std::string>{"bar: 1-4"} : std::vector<std::string>());
        ASSERT_THAT(screen, SizeIs(height));
        for (const std::string& line : screen) {
            EXPECT_LE(WidthOf(line), static_cast<std::size_t>(width));
        }
        EXPECT_THAT(screen[0], StartsWith("qev top  "));
        EXPECT_THAT(screen[1], StartsWith("  # ROLE     PROCESS"));
        const std::string bar = LineWith(screen, "  [");
        EXPECT_EQ(WidthOf(bar), static_cast<std::size_t>(width));
        EXPECT_EQ(bar.find_first_not_of(" [1A.]"), std::string::npos) << bar;
        EXPECT_EQ(WidthOf(LineWith(screen, NodeText(1))), static_cast<std::size_t>(width));
        EXPECT_THAT(screen.back(), StartsWith("q quit  ? help"));
        EXPECT_THAT(LineWith(screen, chain_.Name()), HasSubstr("  live "));
        EXPECT_THAT(LineWith(screen, idle_.Name()), HasSubstr("  idle "));
    }
}

TEST_F(LiveView, ObeysItsKeys) {
    const Terminal terminal(Top() + "; echo status $?; exec cat", 80, 24);
    const auto first = std::min(chain_.Name(), idle_.Name());
    const auto second = std::max(chain_.Name(), idle_.Name());
    (void)terminal.WaitFor({"sort: name", "> " + first, "live", "  " + second});
    terminal.Press("Down");
    (void)terminal.WaitFor({"> " + second}, {"> " + first});
    terminal.Press("r");
    auto screen = terminal.WaitFor({"sort: rate"});
    EXPECT_THAT(screen[2].substr(2), StartsWith(chain_.Name()));
    terminal.Press("Home");
    (void)terminal.WaitFor({"> " + chain_.Name()});
    terminal.Press("Enter");
    (void)terminal.WaitFor({"Esc back", "so far ", "bytes of 100000 free",
                            "process " + std::to_string(chain_.Writer()) + " qev-test-writer"},
                           {idle_.Name()});
    terminal.Press("Escape");
    (void)terminal.WaitFor({idle_.Name()}, {"Esc back"});
    terminal.Press("/ " + idle_.Name());
    (void)terminal.WaitFor({"show names with: " + idle_.Name() + "_", "> " + idle_.Name()},
                           {"  " + chain_.Name()});
    terminal.Press("Enter Escape");
    (void)terminal.WaitFor({"q quit", chain_.Name()}, {"show names with"});
    terminal.Press("Space");
    (void)terminal.WaitFor({"PAUSED"});
    terminal.Press("Space");
    (void)terminal.WaitFor({"q quit"}, {"PAUSED"});
    terminal.Press("?");
    (void)terminal.WaitFor({"Ctrl-C  quit"});
    terminal.Press("q");
    (void)terminal.WaitFor({"status 0"}, {"qev top"});
}

TEST_F(LiveView, RingsAppearAndVanish) {
    const Terminal terminal(
        "exec " + kQev + " top --interval 0.1 --filter qev-test-" + std::to_string(getpid()) + "-",
        80, 50);
    (void)terminal.WaitFor({chain_.Name(), idle_.Name()});
    auto more = std::make_unique<RingUnderTest>();
    (void)terminal.WaitFor({more->Name()});
    const std::string name = more->Name();
    more.reset();
    (void)terminal.WaitFor({chain_.Name(), idle_.Name()}, {name});
}

struct EndRow {
    const char* name;
    const char* keys;
    int signal;
    int status;
};

class LiveViewEnd : public LiveView, public testing::WithParamInterface<EndRow> {};

TEST_P(LiveViewEnd, GivesTheTerminalBackAsItWas) {
    const EndRow& end = GetParam();
    const TemporaryFolder folder;
    const std::string pid = folder.Path("pid");
    const Terminal terminal("echo before; stty -g; sh -c 'echo $$ > " + pid + "; exec " + Top() +
                                "'; echo status $?; stty -g; exec cat",
                            80, 24);
    (void)terminal.WaitFor({"> ", "live"}, {"before"});
    if (end.signal == 0) {
        terminal.Press(end.keys);
    } else {
        EXPECT_EQ(kill(std::atoi(ReadFile(pid).c_str()), end.signal), 0);
    }
    const std::string status = "status " + std::to_string(end.status);
    // The settings are one line before and one after.
    std::vector<std::string> screen;
    WaitUntil([&] {
        screen = terminal.WaitFor({"before", status}, {"qev top"});
        return std::find(screen.begin(), screen.end(), status) + 1 != screen.end() &&
               !(std::find(screen.begin(), screen.end(), status) + 1)->empty();
    });
    const std::string settings = Joined(screen);
    const auto from = settings.find("before\n") + sizeof "before";
    const auto to = settings.find(status);
    ASSERT_LT(from, to);
    const std::string before = settings.substr(from, to - from);
    EXPECT_EQ(settings.substr(to + status.size() + 1, before.size()), before);
}

INSTANTIATE_TEST_SUITE_P(Ends, LiveViewEnd,
                         testing::Values(EndRow{"Quit", "q", 0, 0},
                                         EndRow{"Interrupt", "C-c", 0, 0},
                                         EndRow{"Terminate", "", SIGTERM, 143},
                                         EndRow{"HangUp", "", SIGHUP, 129}),
                         [](const auto& row) { return std::string(row.param.name); });

class LiveViewTerminals : public LiveView, public testing::WithParamInterface<const char*> {};

TEST_P(LiveViewTerminals, AreDrawnOnWithPlainCharacters) {
    const Terminal terminal("LC_ALL=C TERM=" + std::string(GetParam()) + " exec " + Top(), 80, 24);
    const auto screen = terminal.WaitFor({NodeText(0), NodeText(1), "live", "#"});
    EXPECT_THAT(screen, SizeIs(24));
    EXPECT_THAT(screen[0], StartsWith("qev top  "));
    EXPECT_THAT(screen.back(), StartsWith("q quit  ? help"));
    for (const char character : Joined(screen)) {
        EXPECT_TRUE(character == '\n' || (character >= ' ' && character <= '~'));
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, LiveViewTerminals,
                         testing::Values("xterm-256color", "xterm", "vt100", "screen", "linux"),
                         [](const auto& row) {
                             std::string name = row.param;
                             name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                             return name;
                         });

TEST_F(LiveView, TerminalThatNobodyKnowsIsRefused) {
    const Terminal terminal("TERM=nonsense " + Top() + "; echo status $?; exec cat", 80, 24);
    const auto screen = terminal.WaitFor({"status 1"});
    EXPECT_EQ(screen[0], "qev top: cannot use the terminal: TERM is \"nonsense\"");
}

}  // namespace
}  // namespace qel::test
