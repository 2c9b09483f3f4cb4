#include "Progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "PacketHeader.h"
#include "Report.h"

namespace qel {
namespace {

constexpr std::size_t kTextWidth = 51;  // of a line without its bar

std::size_t BarWidth() {
    constexpr std::size_t kDefaultWidth = 80;
    constexpr std::size_t kWidest = 40;
    winsize window{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col != 0;
    const std::size_t width = known ? window.ws_col : kDefaultWidth;
    return width <= kTextWidth ? 0 : std::min(kWidest, width - kTextWidth);
}

}  // namespace

Progress::Progress(const StageCounters* counters, std::size_t nodes, std::uint64_t ringSize)
    : counters_(counters),
      nodes_(nodes),
      ringSize_(ringSize),
      isTerminal_(isatty(STDERR_FILENO) == 1),
      last_(nodes),
      lastTime_(Clock::now()) {}

std::vector<Progress::Sample> Progress::Take() const {
    std::vector<Sample> samples(nodes_);
    // From the sink up, so that no node seems to be ahead of the one before it.
    for (std::size_t node = nodes_; node-- > 0;) {
        samples[node] = {counters_[node].packets.load(), counters_[node].bytes.load()};
    }
    return samples;
}

/// Part of the ring that is waiting for `node`, from 0 to 1; for node 0 the part in use.
double Progress::FillOf(std::size_t node, const std::vector<Sample>& now) const {
    const auto roomOf = [](const Sample& sample) {
        return static_cast<double>(sample.bytes + kPacketHeaderSize * sample.packets);
    };
    const double in = roomOf(now[node == 0 ? 0 : node - 1]);
    const double out = roomOf(node == 0 ? now.back() : now[node]);
    return std::clamp((in - out) / static_cast<double>(ringSize_), 0.0, 1.0);
}

void Progress::Draw() {
    const Clock::time_point time = Clock::now();
    if (!isTerminal_ || time - lastTime_ < kPeriod) {
        return;
    }
    const std::chrono::duration<double> elapsed = time - lastTime_;
    const std::vector<Sample> now = Take();
    const std::size_t barWidth = BarWidth();
    std::string text = drawn_ ? fmt::format("\033[{}A", nodes_) : "";
    for (std::size_t node = 0; node < nodes_; ++node) {
        const auto packets = static_cast<double>(now[node].packets - last_[node].packets);
        const auto bytes = static_cast<double>(now[node].bytes - last_[node].bytes);
        const double fill = FillOf(node, now);
        const auto filled =
            static_cast<std::size_t>(std::lround(fill * static_cast<double>(barWidth)));
        text += fmt::format("\r\033[K{} {:<8} {:>9.0f} pkt/s {:>8.1f} MB/s [{}{}] {:>3.0f} %\n",
                            node, RoleOf(node, nodes_), packets / elapsed.count(),
                            bytes / 1e6 / elapsed.count(), std::string(filled, '#'),
                            std::string(barWidth - filled, '.'), fill * 100);
    }
    (void)std::fputs(text.c_str(), stderr);
    drawn_ = true;
    last_ = now;
    lastTime_ = time;
}

void Progress::Clear() {
    if (drawn_) {
        (void)std::fputs(fmt::format("\033[{}A\r\033[J", nodes_).c_str(), stderr);
        drawn_ = false;
    }
}

}  // namespace qel
