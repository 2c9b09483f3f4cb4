#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Plan.h"
#include "Trial.h"

namespace qel {

/// A figure over all rounds.
struct Spread {
    double median;
    double least;
    double most;
};

/// @param values  at least one
[[nodiscard]] Spread SpreadOf(std::vector<double> values);

/// One transport's rounds.
struct Row {
    std::string kind;
    std::vector<TrialResult> rounds;

    /// The spread of a figure of each round.
    [[nodiscard]] Spread Over(const std::function<double(const TrialResult&)>& figure) const;

    /// How often a figure holds that of `reference` in the same round; nothing when it is 0 there.
    [[nodiscard]] std::optional<Spread> Against(
        const Row& reference, const std::function<double(const TrialResult&)>& figure) const;
};

/// All transports of one stream, with equally many rounds.
struct Comparison {
    Plan plan;
    std::vector<Row> rows;
};

/// Where and when it was measured.
struct Machine {
    std::string kernel;
    std::string processor;
    unsigned cores;
    double loadBefore;  ///< average of a minute
    double loadAfter;
};

}  // namespace qel
