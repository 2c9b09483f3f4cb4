#pragma once

#include <cstddef>

#include "Cells.h"
#include "Snapshot.h"
#include "TopState.h"

namespace qel {

/// Composes what the live view shows: `height` lines of at most `width` cells.
/// @param state  what it tells of scrolling is brought in line with the page
[[nodiscard]] Lines PageOf(const Snapshot& snapshot, TopState& state, std::size_t width,
                           std::size_t height, Charset charset);

}  // namespace qel
