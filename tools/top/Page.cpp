#include "Page.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "ObjectLines.h"
#include "RingLines.h"
#include "Text.h"

namespace qel {
namespace {

/// The part of a page that scrolls, and which of its lines are to be in sight.
struct Body {
    Lines lines;
    std::size_t wantedFrom = 0;
    std::size_t wantedTo = 0;
};

/// Pieces of a line, as many of the first ones as there is room for.
std::string Joined(const std::vector<std::string>& pieces, std::size_t width) {
    std::string text;
    for (const std::string& piece : pieces) {
        if (!piece.empty() && WidthOf(text) + WidthOf(piece) + 2 <= width) {
            text += (text.empty() ? "" : "  ") + piece;
        }
    }
    return text;
}

Line TopLine(const Snapshot& snapshot, const TopState& state, std::size_t width, Charset charset) {
    const std::string hidden = snapshot.hiddenProcesses == 0
                                   ? ""
                                   : fmt::format("processes hidden: {}", snapshot.hiddenProcesses);
    const std::string unlisted = snapshot.listsAllProcesses ? "" : "not all processes are listed";
    const std::string filter =
        state.filter.empty() ? "" : "filter: " + Shown(OneLine(state.filter), charset);
    return {
        {Joined({"qev top", state.isPaused ? "PAUSED" : "", filter, hidden, unlisted,
                 fmt::format("sort: {}", NameOf(state.order)),
                 Counted(snapshot.rings.size(), "ring"), Counted(snapshot.blocks.size(), "block"),
                 Counted(snapshot.semaphores.size(), "semaphore"),
                 fmt::format("every {:.3g} s", snapshot.interval)},
                width),
         Ink::Strong}};
}

Line BottomLine(const TopState& state, std::size_t width, Charset charset) {
    if (state.edits) {
        return {{"show names with: " + Shown(OneLine(state.filter), charset) + "_", Ink::Selected}};
    }
    if (state.view != TopState::View::List) {
        return {{Joined({"Esc back", "arrows scroll", "space pause", "q quit"}, width), Ink::Dim}};
    }
    return {{Joined({"q quit", "? help", "Enter details", "s sort", "/ filter", "space pause",
                     "bar: 1-4 waits for a node, A-D held by it, . free"},
                    width),
             Ink::Dim}};
}

Lines HelpLines() {
    constexpr std::string_view kText =
        "Keys\n"
        "  up, down      select a ring           Enter      its details, and back\n"
        "  PgUp, PgDn    scroll                  Home, End  first or last ring\n"
        "  s             next order              n r f l    by name, rate, fill, latency\n"
        "  /             show some names only    Esc        show all again; go back\n"
        "  space         hold the picture        q, Ctrl-C  quit\n"
        "\n"
        "Bar      1 waits for node 1, A is held by it, 2 and B of node 2 ..., . is free\n"
        "MB/S     read by the node, written by the producer; with headers and fillers\n"
        "PKT/S    packets, fillers not counted\n"
        "LATENCY  mean time from when a node was handed a packet until it handed it on\n"
        "WAIT     bytes handed to the node and not read yet, mean\n"
        "HELD     bytes that it has read and not handed on, mean\n"
        "LAG      bytes that the producer is ahead of it, now\n"
        "full     share of time without room for the largest record seen last: the\n"
        "         producer waits or drops. What it drops cannot be seen from outside\n"
        "~ >      an estimate; too low, as the ring goes round too quickly to follow\n"
        "?        no process claims this node";
    Lines lines;
    for (std::size_t from = 0; from <= kText.size();) {
        const std::size_t end = std::min(kText.find('\n', from), kText.size());
        lines.push_back({{std::string(kText.substr(from, end - from))}});
        from = end + 1;
    }
    return lines;
}

void Append(Lines& lines, Lines more) {
    lines.insert(lines.end(), std::make_move_iterator(more.begin()),
                 std::make_move_iterator(more.end()));
}

Body ListBody(const Snapshot& snapshot, const TopState& state, const RingLayout& layout) {
    Body body;
    const auto rings = ShownRings(snapshot, state);
    const std::size_t selected = PlaceOfSelected(rings, state);
    if (rings.empty()) {
        body.lines.push_back({{state.filter.empty() ? "  no rings" : "  no ring of such a name"}});
    }
    for (std::size_t place = 0; place < rings.size(); ++place) {
        if (place == selected) {
            body.wantedFrom = place == 0 ? 0 : body.lines.size();
        }
        Append(body.lines, RingLines(*rings[place], place == selected, layout));
        if (place == selected) {
            body.wantedTo = body.lines.size();
        }
    }
    const auto isShown = [&](const std::string& name) { return IsShown(name, state); };
    Append(body.lines, BlockLines(snapshot.blocks, isShown, layout));
    Append(body.lines, SemaphoreLines(snapshot.semaphores, isShown, layout));
    return body;
}

Body BodyOf(const Snapshot& snapshot, const TopState& state, const RingLayout& layout) {
    switch (state.view) {
        case TopState::View::Help:
            return {HelpLines()};
        case TopState::View::Details:
            for (const RingRow& ring : snapshot.rings) {
                if (ring.name == state.selected) {
                    return {RingDetails(ring, layout)};
                }
            }
            return {{{{"  ring " + Shown(OneLine(state.selected), layout.charset) + " has gone"}}}};
        case TopState::View::List:
            break;
    }
    return ListBody(snapshot, state, layout);
}

/// Brings into line what was scrolled with what there is, and with what is to be in sight.
void Settle(TopState& state, const Body& body, std::size_t height) {
    state.pageLines = std::max<std::size_t>(height, 1);
    if (state.follows && state.view == TopState::View::List) {
        if (body.wantedTo > state.scrolled + height) {
            state.scrolled = body.wantedTo - height;
        }
        state.scrolled = std::min(state.scrolled, body.wantedFrom);
    }
    const std::size_t most = body.lines.size() > height ? body.lines.size() - height : 0;
    state.scrolled = std::min(state.scrolled, most);
}

}  // namespace

Lines PageOf(const Snapshot& snapshot, TopState& state, std::size_t width, std::size_t height,
             Charset charset) {
    constexpr std::size_t kFrame = 3;  // top, titles, bottom
    const RingLayout layout{width, charset,
                            static_cast<std::size_t>(std::max(
                                1.0, kHistorySeconds / std::max(snapshot.interval, 0.001)))};
    const std::size_t room = height > kFrame ? height - kFrame : 1;
    const Body body = BodyOf(snapshot, state, layout);
    Settle(state, body, room);
    Lines page{TopLine(snapshot, state, width, charset),
               state.view == TopState::View::Help ? Line{} : NodeTitles(layout)};
    for (std::size_t line = 0; line < room; ++line) {
        const std::size_t at = state.scrolled + line;
        page.push_back(at < body.lines.size() ? body.lines[at] : Line{});
    }
    page.push_back(BottomLine(state, width, charset));
    page.resize(std::min(page.size(), height));
    for (Line& line : page) {
        line = Clipped(line, width);
    }
    return page;
}

}  // namespace qel
