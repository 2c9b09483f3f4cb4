#pragma once

#include <prometheus/metric_family.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

/// What a metric is called and what it tells.
struct MetricKind {
    const char* name;
    const char* help;
    prometheus::MetricType type = prometheus::MetricType::Gauge;
};

using MetricLabels = std::vector<prometheus::ClientMetric::Label>;

/// What one look at the machine gives, by metric.
class MetricFamilies {
public:
    void Add(const MetricKind& kind, MetricLabels labels, double value);

    /// One value per possible state, 1 for the one that is and 0 for the others, told apart by the
    /// label `state`.
    void AddState(const MetricKind& kind, const MetricLabels& labels,
                  const std::vector<std::string_view>& states, std::string_view current);

    /// All that was added, by the metrics' names.
    [[nodiscard]] std::vector<prometheus::MetricFamily> Take() &&;

private:
    std::map<std::string, prometheus::MetricFamily> families_;
};

/// As a metric's value; from 2^53 on it loses precision.
template <typename Number>
[[nodiscard]] constexpr double ValueOf(Number number) noexcept {
    return static_cast<double>(number);
}

}  // namespace qel
