#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <fstream>
#include <sstream>
#include <string>

#include "Drawings.h"
#include "Page.h"
#include "SomeSnapshot.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// The lines without the space at their ends.
std::string TextOf(const Lines& page) {
    std::string text;
    for (const Line& line : page) {
        std::string bare = qel::TextOf(line);
        bare.erase(bare.find_last_not_of(' ') + 1);
        text += bare + "\n";
    }
    return text;
}

std::string Golden(const std::string& name) {
    std::ifstream file(std::string(QEV_GOLDEN_FOLDER) + "/" + name + ".txt");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

struct PageRow {
    const char* golden;
    std::size_t width;
    std::size_t height;
    Charset charset;
    TopState state;
};

TopState Selecting(const std::string& name, TopState::View view = TopState::View::List) {
    TopState state;
    state.selected = name;
    state.view = view;
    return state;
}

TopState Typing() {
    TopState state;
    state.edits = true;
    state.filter = "cam";
    state.order = Order::Rate;
    return state;
}

class Page : public testing::TestWithParam<PageRow> {
protected:
    void SetUp() override {
        if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
            GTEST_SKIP() << "there is no locale C.UTF-8";
        }
    }
    void TearDown() override { (void)std::setlocale(LC_CTYPE, "C"); }
};

TEST_P(Page, IsAsDrawnAndFitsTheTerminal) {
    const PageRow& row = GetParam();
    TopState state = row.state;
    const Lines page = PageOf(SomeSnapshot(), state, row.width, row.height, row.charset);
    EXPECT_EQ(page.size(), row.height);
    for (const Line& line : page) {
        EXPECT_LE(WidthOf(line), row.width);
    }
    EXPECT_EQ(TextOf(page), Golden(row.golden));
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, Page,
    testing::Values(
        PageRow{"list-80x24", 80, 24, Charset::Utf8, {}},
        PageRow{"list-80x24-ascii", 80, 24, Charset::Ascii, Selecting("quick")},
        PageRow{"list-200x50", 200, 50, Charset::Utf8, Selecting("camera")},
        PageRow{"details-80x24", 80, 24, Charset::Utf8,
                Selecting("camera", TopState::View::Details)},
        PageRow{"details-200x50", 200, 50, Charset::Utf8,
                Selecting("quick", TopState::View::Details)},
        PageRow{"gone-80x24", 80, 24, Charset::Utf8, Selecting("x", TopState::View::Details)},
        PageRow{"help-80x24", 80, 24, Charset::Utf8, Selecting("", TopState::View::Help)},
        PageRow{"filter-80x24", 80, 24, Charset::Utf8, Typing()}),
    [](const auto& row) {
        std::string name = row.param.golden;
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

TEST(PageSizes, AnyTerminalIsFilledAndNotOverrun) {
    for (std::size_t width = 0; width < 90; width += 7) {
        for (std::size_t height = 0; height < 30; ++height) {
            for (const auto view :
                 {TopState::View::List, TopState::View::Details, TopState::View::Help}) {
                TopState state = Selecting("camera", view);
                const Lines page = PageOf(SomeSnapshot(), state, width, height, Charset::Ascii);
                EXPECT_EQ(page.size(), height);
                for (const Line& line : page) {
                    EXPECT_LE(WidthOf(line), width);
                }
            }
        }
    }
}

TEST(PageScrolling, SelectedRingIsInSightAndEverythingCanBeReached) {
    const Snapshot snapshot = SomeSnapshot();
    TopState state;
    std::string seen;
    const auto draw = [&] { return TextOf(PageOf(snapshot, state, 80, 12, Charset::Ascii)); };
    for (const RingRow& ring : snapshot.rings) {
        state.selected = ring.name;
        state.follows = true;
        EXPECT_THAT(draw(), HasSubstr("\n> " + ring.name.substr(0, ring.name.find('\n'))));
    }
    for (int page = 0; page < 10; ++page) {
        Press(state, {Key::Kind::PageDown}, snapshot);
        seen += draw();
    }
    EXPECT_THAT(seen, HasSubstr("camera.space"));
    EXPECT_THAT(seen, HasSubstr("\n  cut "));
    for (int page = 0; page < 10; ++page) {
        Press(state, {Key::Kind::PageUp}, snapshot);
        seen = draw();
    }
    EXPECT_THAT(seen, HasSubstr("\n  audio "));
}

TEST(RingBars, ShowWhereTheBytesAre) {
    struct Row {
        std::uint64_t size;
        std::vector<std::pair<double, double>> stages;  // waiting and held
        std::size_t width;
        const char* bar;
    };
    for (const Row& row : {
             Row{100, {{0, 0}}, 10, ".........."},
             Row{100, {{50, 20}}, 10, "11111AA..."},
             Row{100, {{10, 20}, {30, 40}}, 10, "1AA222BBBB"},
             Row{100, {{1, 1}, {1, 1}, {1, 1}, {1, 1}}, 10, "1A2B3C4D.."},
             Row{1000000, {{1, 0}, {999999, 0}}, 10, "1222222222"},
             Row{100, {{0, 100}}, 10, "AAAAAAAAAA"},
             Row{100, {{100, 100}, {100, 100}}, 8, "11AA22BB"},
             Row{100, {{1, 1}, {1, 1}}, 2, "2B"},
             Row{100, {{0.4, 0}}, 4, "...."},
             Row{0, {{0, 0}}, 3, "..."},
             Row{100, {{50, 0}}, 0, ""},
         }) {
        RingFigures figures;
        figures.size = row.size;
        figures.sink = static_cast<unsigned>(row.stages.size());
        for (std::size_t at = 0; at < row.stages.size(); ++at) {
            figures.nodes.at(at + 1).waiting = row.stages[at].first;
            figures.nodes.at(at + 1).held = row.stages[at].second;
        }
        EXPECT_EQ(qel::TextOf(RingBar(figures, row.width)), row.bar);
    }
}

TEST(RingBars, TellNodesByColourToo) {
    RingFigures figures;
    figures.size = 100;
    figures.sink = 2;
    figures.nodes[1].waiting = 20;
    figures.nodes[2].held = 30;
    std::vector<Ink> inks;
    for (const Span& span : RingBar(figures, 10)) {
        inks.push_back(span.ink);
    }
    EXPECT_THAT(inks, ElementsAre(Ink::Bar1, Ink::Bar2, Ink::Free));
}

TEST(Sparklines, ShowTheLastMinuteWithTheNewestOnTheRight) {
    struct Row {
        std::deque<double> rates;
        std::size_t most;
        std::size_t width;
        const char* line;
    };
    for (const Row& row : {
             Row{{}, 8, 4, "    "},
             Row{{0, 0, 0, 0}, 4, 4, "____"},
             Row{{1, 2, 4, 7}, 4, 4, ".:=#"},
             Row{{7}, 4, 4, "   #"},
             Row{{7, 0}, 4, 2, " ="},
             Row{{0, 7, 7, 7, 0, 0}, 6, 3, "=#_"},
             Row{{7, 0}, 2, 4, "##__"},
             Row{{1e-9, 7}, 2, 2, ".#"},
             Row{{1, 1, 1, 1}, 2, 2, "##"},
             Row{{1}, 1, 0, ""},
         }) {
        EXPECT_EQ(Sparkline(row.rates, row.most, row.width, Charset::Ascii), row.line);
    }
    EXPECT_EQ(Sparkline({0, 1}, 2, 2, Charset::Utf8), "▁█");
}

}  // namespace
}  // namespace qel::test
