#pragma once

#include <cstddef>
#include <deque>
#include <string>

#include "Cells.h"
#include "RingMeter.h"

namespace qel {

/// A ring as a line of `width` cells: what waits for node 1 as "1", what it holds as "A", then "2"
/// and "B" and so on, and free space as ".". What is there at all has one cell at least.
[[nodiscard]] Line RingBar(const RingFigures& figures, std::size_t width);

/// Rates of the last minute in `width` cells, the newest on the right; the highest is full height.
/// @param most  as many rates as a minute has
[[nodiscard]] std::string Sparkline(const std::deque<double>& rates, std::size_t most,
                                    std::size_t width, Charset charset);

}  // namespace qel
