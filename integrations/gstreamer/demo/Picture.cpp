#include "Picture.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "CommandLine.h"

namespace qel {
namespace {

std::string Line(std::size_t index, const StagePlan& stage, const NodeCounters& node) {
    return fmt::format("{:<4} {:<11} {:>6} {:>8.1f} {:>5} {:>4} {:>7.2f} {:>6}  {}", index,
                       stage.role, node.frames.load(), static_cast<double>(node.bytes) / 1e6,
                       node.keyFrames.load(), node.heldPackets.load(),
                       static_cast<double>(node.heldBytes) / 1e6, node.copies.load(),
                       stage.found(node));
}

/// A line that a terminal would wrap could not be drawn over.
std::size_t WidthOfTerminal() {
    constexpr std::size_t kDefaultWidth = 80;
    winsize window{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col != 0;
    return known ? window.ws_col : kDefaultWidth;
}

}  // namespace

Picture::Picture(const ChainPlan& plan, const std::array<NodeCounters, kChainLength>& nodes)
    : plan_(plan), nodes_(nodes), isTerminal_(isatty(STDOUT_FILENO) == 1) {}

void Picture::Draw() {
    const Clock::time_point now = Clock::now();
    if (isTerminal_ && now - last_ >= kPeriod) {
        last_ = now;
        Write(WidthOfTerminal() - 1);
    }
}

void Picture::Finish() {
    Write(std::string::npos);
}

void Picture::Write(std::size_t width) {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    std::array<std::string, kChainLength + 1> lines;
    lines[0] = fmt::format("{:<4} {:<11} {:>6} {:>8} {:>5} {:>4} {:>7} {:>6}  found ({:.1f} s)",
                           "node", "role", "frames", "MB", "keys", "held", "MB", "copies", seconds);
    // From the sink up, so that no node seems to be ahead of the one before it.
    for (std::size_t node = kChainLength; node-- > 0;) {
        lines[node + 1] = Line(node, plan_[node], nodes_[node]);
    }
    std::string text = drawn_ ? fmt::format("\033[{}A", lines.size()) : "";
    for (const std::string& line : lines) {
        text += isTerminal_ ? fmt::format("\r\033[K{}\n", line.substr(0, width)) : line + "\n";
    }
    Print(text);
    drawn_ = isTerminal_;
}

}  // namespace qel
