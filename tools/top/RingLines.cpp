#include "RingLines.h"

#include <fmt/format.h>

#include <algorithm>

#include "Amounts.h"
#include "Drawings.h"
#include "NodeRole.h"
#include "RingState.h"
#include "Text.h"
#include "UserText.h"

namespace qel {
namespace {

// Cells of the columns of a node's line, each with a space before it.
constexpr std::size_t kRole = 8;
constexpr std::size_t kRate = 7;
constexpr std::size_t kTime = 7;
constexpr std::size_t kBytes = 5;
constexpr std::size_t kColumns = 3 + 1 + kRole + 1 + 3 * (kRate + 1) + 3 * (kBytes + 1) + 1;
constexpr std::size_t kLeastProcess = 16;
constexpr std::size_t kLeastSparkline = 8;

static_assert(kTime == kRate);

/// What the columns leave goes to the processes and to the sparkline.
struct Room {
    std::size_t process;
    std::size_t sparkline;
};

Room RoomOf(const RingLayout& layout) {
    constexpr std::size_t kMostProcess = 40;
    const std::size_t room = layout.width > kColumns ? layout.width - kColumns : 0;
    const std::size_t process =
        room < kLeastProcess + kLeastSparkline
            ? std::min(room, kLeastProcess)
            : std::min(kLeastProcess + (room - kLeastProcess - kLeastSparkline) / 3, kMostProcess);
    return {process, room - process};
}

std::string ProcessText(const std::vector<ObjectUser>& processes) {
    if (processes.empty()) {
        return "?";
    }
    const ObjectUser& first = processes.front();
    const bool isStopped = first.state == 'T' || first.state == 't';
    const std::string text =
        fmt::format("{} {}{}", first.pid, isStopped ? "stopped, " : "", first.command);
    return processes.size() == 1 ? text : fmt::format("{} and {} more", text, processes.size() - 1);
}

Line NodeLine(const RingRow& ring, unsigned node, const RingLayout& layout) {
    const NodeRow& row = ring.nodes[node];
    const NodeFigures& told = row.figures;
    const Room room = RoomOf(layout);
    const std::string bytes = ByteWorth(ring.figures);
    const std::string packets = PacketWorth(ring.figures);
    const bool isWriter = node == 0;
    const auto inStage = [&](double amount) { return isWriter ? "-" : ShortBytes(amount); };
    Line line;
    line.push_back({fmt::format("  {}", node), isWriter ? Ink::Plain : InkOf(node)});
    line.push_back({" " + Left(RoleOf(node, ring.nodes.size()), kRole)});
    line.push_back({" " + Left(Shown(ProcessText(row.processes), layout.charset), room.process),
                    row.processes.empty() ? Ink::Dim : Ink::Plain});
    line.push_back({" " + Right(bytes + ShortMegabytes(told.bytesPerSecond), kRate), Ink::Strong});
    line.push_back({" " + Right(packets + ShortRate(told.packetsPerSecond), kRate)});
    line.push_back({" " + Right(ShortTime(row.latency), kTime)});
    line.push_back({" " + Right(inStage(told.waiting), kBytes)});
    line.push_back({" " + Right(inStage(told.held), kBytes)});
    line.push_back({" " + Right(inStage(static_cast<double>(told.lagNow)), kBytes)});
    line.push_back(
        {" " + Sparkline(row.rates, layout.ratesPerMinute, room.sparkline, layout.charset),
         isWriter ? Ink::Plain : InkOf(node)});
    return line;
}

/// What is to be said instead of figures, or nothing.
std::string TroubleOf(const RingRow& ring) {
    if (!ring.trouble.empty()) {
        return ring.trouble;
    }
    if (ring.figures.isSound) {
        return "";
    }
    const bool isFresh = ring.state == TextOf(RingState::Fresh);
    return ring.state +
           (isFresh ? ": nobody has opened it yet" : ": qev doctor " + ring.name + " tells more");
}

std::string PacketsText(const RingFigures& figures) {
    return figures.packetLimit == 0
               ? ""
               : fmt::format("  packets {}/{}", figures.packets, figures.packetLimit);
}

/// A ring's figures that are not of a node.
std::string StateText(const RingRow& ring) {
    const RingFigures& figures = ring.figures;
    std::string text =
        fmt::format("{}  {}  in use {}", ring.state, ShortBytes(static_cast<double>(figures.size)),
                    ShortShare(figures.fill));
    text += figures.full ? "  full " + ShortShare(*figures.full) : "";
    text += PacketsText(figures);
    if (figures.largestRecord != 0) {
        text += "  record " + ShortBytes(static_cast<double>(figures.largestRecord));
    }
    return text;
}

bool IsOftenFull(const RingFigures& figures) {
    constexpr double kOften = 0.1;
    return figures.full.value_or(0) >= kOften;
}

Line HeadLine(const RingRow& ring, bool isSelected, const RingLayout& layout) {
    const bool isSound = TroubleOf(ring).empty();
    const std::string state = isSound ? StateText(ring) : "";
    constexpr std::size_t kLeastName = 8;
    constexpr std::size_t kMostName = 48;
    const std::size_t used = WidthOf(state) + 4;
    const std::string name = Shown(OneLine(ring.name), layout.charset);
    const std::size_t room =
        std::clamp(layout.width > used ? layout.width - used : 0, kLeastName, kMostName);
    return {{isSelected ? "> " : "  ", isSelected ? Ink::Selected : Ink::Plain},
            {Left(name, room), isSelected ? Ink::Selected : Ink::Strong},
            {"  " + state, IsOftenFull(ring.figures) ? Ink::Alarm : Ink::Plain}};
}

Line BarLine(const RingFigures& figures, const RingLayout& layout) {
    constexpr std::size_t kFrame = 4;
    Line line{{"  ["}};
    const Line bar = RingBar(figures, layout.width > kFrame ? layout.width - kFrame : 1);
    line.insert(line.end(), bar.begin(), bar.end());
    line.push_back({"]"});
    return line;
}

Line OthersLine(const RingRow& ring, const RingLayout& layout) {
    std::string text;
    for (const ObjectUser& user : ring.others) {
        text += (text.empty() ? "  without a claim: " : ", ") + UserText(user);
    }
    return {{Left(Shown(text, layout.charset), layout.width), Ink::Dim}};
}

std::string TotalsText(const RingRow& ring, unsigned node) {
    const NodeFigures& told = ring.nodes[node].figures;
    const char* const bytes = ring.figures.byteTotalsAreExact ? "" : "~";
    const char* const packets = ring.figures.packetTotalsAreExact ? "" : "~";
    std::string text = fmt::format("    so far {}{} bytes, {}{} packets", bytes, told.bytes,
                                   packets, told.packets);
    if (node > 0) {
        text += fmt::format("; now waiting {}, held {}", told.waitingNow, told.heldNow);
    }
    return text;
}

void AddNode(Lines& lines, const RingRow& ring, unsigned node, const RingLayout& layout) {
    constexpr std::size_t kIndent = 4;
    const NodeRow& row = ring.nodes[node];
    lines.push_back(NodeLine(ring, node, layout));
    lines.push_back({{TotalsText(ring, node)}});
    for (const ObjectUser& user : row.processes) {
        lines.push_back({{"    process " + Shown(UserText(user), layout.charset)}});
    }
    const double highest =
        row.rates.empty() ? 0 : *std::max_element(row.rates.begin(), row.rates.end());
    const std::string peak = fmt::format(" peak {} MB/s", ShortMegabytes(highest));
    const std::size_t used = kIndent + WidthOf(peak) + 1;
    const std::size_t room = layout.width > used ? layout.width - used : 1;
    lines.push_back({{"    " + Sparkline(row.rates, layout.ratesPerMinute, room, layout.charset),
                      node == 0 ? Ink::Plain : InkOf(node)},
                     {peak}});
}

Lines Worth(const RingFigures& figures) {
    if (figures.isTooFast) {
        return {{{"  > the ring goes round too quickly: it is faster than told", Ink::Dim}}};
    }
    if (!figures.bytesAreExact || !figures.packetsAreExact) {
        return {{{"  ~ estimates: not every round or not every header was looked at", Ink::Dim}}};
    }
    return {};
}

}  // namespace

Line NodeTitles(const RingLayout& layout) {
    const Room room = RoomOf(layout);
    const std::string minute = room.sparkline >= kLeastSparkline ? "LAST MIN" : "";
    return {{fmt::format("  # {} {} {} {} {} {} {} {} {}", Left("ROLE", kRole),
                         Left("PROCESS", room.process), Right("MB/S", kRate), Right("PKT/S", kRate),
                         Right("LATENCY", kTime), Right("WAIT", kBytes), Right("HELD", kBytes),
                         Right("LAG", kBytes), minute),
             Ink::Title}};
}

Lines RingLines(const RingRow& ring, bool isSelected, const RingLayout& layout) {
    Lines lines{HeadLine(ring, isSelected, layout)};
    const std::string trouble = TroubleOf(ring);
    if (!trouble.empty()) {
        lines.push_back({{"  " + Shown(OneLine(trouble), layout.charset), Ink::Alarm}});
    } else {
        lines.push_back(BarLine(ring.figures, layout));
        for (unsigned node = 0; node < ring.nodes.size(); ++node) {
            lines.push_back(NodeLine(ring, node, layout));
        }
    }
    if (!ring.others.empty()) {
        lines.push_back(OthersLine(ring, layout));
    }
    return lines;
}

Lines RingDetails(const RingRow& ring, const RingLayout& layout) {
    Lines lines{HeadLine(ring, true, layout)};
    const std::string trouble = TroubleOf(ring);
    if (!trouble.empty()) {
        lines.push_back({{"  " + Shown(OneLine(trouble), layout.charset), Ink::Alarm}});
    } else {
        lines.push_back(BarLine(ring.figures, layout));
        lines.push_back(
            {{fmt::format("  {} bytes of {} free", ring.figures.freeNow, ring.figures.size)}});
        for (const Line& line : Worth(ring.figures)) {
            lines.push_back(line);
        }
        for (unsigned node = 0; node < ring.nodes.size(); ++node) {
            AddNode(lines, ring, node, layout);
        }
    }
    for (const ObjectUser& user : ring.others) {
        lines.push_back({{"  without a claim: " + Shown(UserText(user), layout.charset)}});
    }
    return lines;
}

}  // namespace qel
