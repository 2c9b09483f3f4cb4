#pragma once

#include <string>
#include <vector>

#include "Summary.h"

namespace qel {

/// A table in Markdown for each stream.
[[nodiscard]] std::string MarkdownOf(const std::vector<Comparison>& comparisons,
                                     const Machine& machine);

/// The same with the figures of each round.
[[nodiscard]] std::string JsonOf(const std::vector<Comparison>& comparisons,
                                 const Machine& machine);

}  // namespace qel
