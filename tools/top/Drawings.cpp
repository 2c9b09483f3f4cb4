#include "Drawings.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <gsl/util>
#include <vector>

namespace qel {
namespace {

/// Parts of the bar, in order; the free space is the last one.
struct Part {
    char sign;
    Ink ink;
    double bytes;
    std::size_t cells = 0;
};

std::vector<Part> PartsOf(const RingFigures& figures) {
    std::vector<Part> parts;
    for (unsigned node = 1; node <= figures.sink; ++node) {
        const NodeFigures& told = gsl::at(figures.nodes, node);
        parts.push_back({static_cast<char>('0' + node), BarInkOf(node), told.waiting});
        parts.push_back({static_cast<char>('A' + node - 1), BarInkOf(node), told.held});
    }
    return parts;
}

/// Gives each part its cells, so that they do not take more than `width`.
void Share(std::vector<Part>& parts, double size, std::size_t width) {
    std::size_t taken = 0;
    for (Part& part : parts) {
        const double share = std::clamp(part.bytes / size, 0.0, 1.0) * static_cast<double>(width);
        part.cells = part.bytes < 1
                         ? 0
                         : std::max<std::size_t>(1, static_cast<std::size_t>(std::lround(share)));
        taken += part.cells;
    }
    for (; taken > width; --taken) {
        const auto largest = std::max_element(
            parts.begin(), parts.end(),
            [](const Part& left, const Part& right) { return left.cells < right.cells; });
        --largest->cells;
    }
}

}  // namespace

Line RingBar(const RingFigures& figures, std::size_t width) {
    std::vector<Part> parts = PartsOf(figures);
    Share(parts, std::max(1.0, static_cast<double>(figures.size)), width);
    Line line;
    std::size_t left = width;
    for (const Part& part : parts) {
        if (part.cells != 0) {
            line.push_back({std::string(part.cells, part.sign), part.ink});
            left -= part.cells;
        }
    }
    line.push_back({std::string(left, '.'), Ink::Free});
    return line;
}

std::string Sparkline(const std::deque<double>& rates, std::size_t most, std::size_t width,
                      Charset charset) {
    constexpr std::array kBlocks{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr std::array kSigns{"_", ".", ":", "-", "=", "+", "*", "#"};
    const auto& signs = charset == Charset::Utf8 ? kBlocks : kSigns;
    const double highest = rates.empty() ? 0 : *std::max_element(rates.begin(), rates.end());
    most = std::max(most, rates.size());
    const std::size_t missing = most - rates.size();
    std::string line;
    for (std::size_t cell = 0; cell < width; ++cell) {
        // Where a minute has fewer rates than the line has cells, each takes several.
        const std::size_t from = std::max(cell * most / width, missing);
        const std::size_t to = std::max((cell + 1) * most / width, cell * most / width + 1);
        double sum = 0;
        for (std::size_t at = from; at < to; ++at) {
            sum += rates[at - missing];
        }
        if (from >= to) {
            line += " ";
            continue;
        }
        const double mean = sum / static_cast<double>(to - from);
        const auto top = static_cast<double>(signs.size() - 1);
        line +=
            signs.at(highest > 0 ? static_cast<std::size_t>(std::ceil(mean / highest * top)) : 0);
    }
    return line;
}

}  // namespace qel
