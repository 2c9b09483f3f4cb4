#pragma once

#include "Cells.h"
#include "Snapshot.h"

namespace qel {

/// How rings are put into lines.
struct RingLayout {
    std::size_t width = 80;
    Charset charset = Charset::Utf8;
    std::size_t ratesPerMinute = 120;
};

/// Titles of the columns of a node's line.
[[nodiscard]] Line NodeTitles(const RingLayout& layout);

/// Name and state, the bar, and a line for each node.
[[nodiscard]] Lines RingLines(const RingRow& ring, bool isSelected, const RingLayout& layout);

/// Everything that is known of one ring.
[[nodiscard]] Lines RingDetails(const RingRow& ring, const RingLayout& layout);

}  // namespace qel
