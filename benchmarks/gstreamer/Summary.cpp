#include "Summary.h"

#include <algorithm>
#include <cstddef>

namespace qel {

Spread SpreadOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    const double median =
        values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
    return {median, values.front(), values.back()};
}

Spread Row::Over(const std::function<double(const TrialResult&)>& figure) const {
    std::vector<double> values;
    values.reserve(rounds.size());
    for (const TrialResult& round : rounds) {
        values.push_back(figure(round));
    }
    return SpreadOf(std::move(values));
}

std::optional<Spread> Row::Against(const Row& reference,
                                   const std::function<double(const TrialResult&)>& figure) const {
    std::vector<double> ratios;
    ratios.reserve(rounds.size());
    for (std::size_t round = 0; round < rounds.size(); ++round) {
        const double divisor = figure(reference.rounds[round]);
        if (divisor <= 0) {
            return std::nullopt;
        }
        ratios.push_back(figure(rounds[round]) / divisor);
    }
    return SpreadOf(std::move(ratios));
}

}  // namespace qel
