#include "Quantiles.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace qel::bench {

std::array<double, 4> QuantilesOf(std::vector<std::uint64_t>& times, double nanosecondsPerTick) {
    if (times.empty()) {
        return {};
    }
    std::sort(times.begin(), times.end());
    const auto count = static_cast<double>(times.size());
    const auto at = [&](double share) {
        const auto rank = static_cast<std::size_t>(std::ceil(share * count));
        return static_cast<double>(times[rank == 0 ? 0 : rank - 1]) * nanosecondsPerTick;
    };
    const auto sum =
        static_cast<double>(std::accumulate(times.begin(), times.end(), std::uint64_t{0}));
    return {at(0.5), at(0.99), at(0.999), sum / count * nanosecondsPerTick};
}

}  // namespace qel::bench
