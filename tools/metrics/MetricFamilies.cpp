#include "MetricFamilies.h"

#include <utility>

namespace qel {

void MetricFamilies::Add(const MetricKind& kind, MetricLabels labels, double value) {
    auto& family = families_[kind.name];
    family.name = kind.name;
    family.help = kind.help;
    family.type = kind.type;
    prometheus::ClientMetric& metric = family.metric.emplace_back();
    metric.label = std::move(labels);
    (kind.type == prometheus::MetricType::Counter ? metric.counter.value : metric.gauge.value) =
        value;
}

void MetricFamilies::AddState(const MetricKind& kind, const MetricLabels& labels,
                              const std::vector<std::string_view>& states,
                              std::string_view current) {
    for (const std::string_view state : states) {
        MetricLabels all = labels;
        all.push_back({"state", std::string(state)});
        Add(kind, std::move(all), state == current ? 1 : 0);
    }
}

std::vector<prometheus::MetricFamily> MetricFamilies::Take() && {
    std::vector<prometheus::MetricFamily> families;
    families.reserve(families_.size());
    for (auto& [name, family] : families_) {
        families.push_back(std::move(family));
    }
    return families;
}

}  // namespace qel
