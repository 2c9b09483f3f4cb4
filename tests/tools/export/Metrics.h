#pragma once

#include <gtest/gtest.h>
#include <prometheus/metric_family.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ObjectCollector.h"

namespace qel::test {

/// What one look gave.
class Metrics {
public:
    using Labels = std::map<std::string, std::string>;

    explicit Metrics(std::vector<prometheus::MetricFamily> families)
        : families_(std::move(families)) {}

    /// The value with exactly these labels, if there is one.
    [[nodiscard]] std::optional<double> Value(const std::string& name, const Labels& labels) const {
        for (const auto& family : families_) {
            for (const auto& metric : family.metric) {
                if (family.name == name && LabelsOf(metric) == labels) {
                    const bool counts = family.type == prometheus::MetricType::Counter;
                    return counts ? metric.counter.value : metric.gauge.value;
                }
            }
        }
        return std::nullopt;
    }

    /// The state that is, of the metric with these labels.
    [[nodiscard]] std::string State(const std::string& name, const Labels& labels) const {
        std::string states;
        for (const auto& family : families_) {
            for (const auto& metric : family.metric) {
                Labels all = LabelsOf(metric);
                const std::string state = all["state"];
                all.erase("state");
                if (family.name == name && all == labels && metric.gauge.value == 1) {
                    states += state;
                }
            }
        }
        return states;
    }

    /// Number of values that have this label, of any metric.
    [[nodiscard]] long With(const std::string& label, const std::string& value) const {
        long count = 0;
        for (const auto& family : families_) {
            count +=
                std::count_if(family.metric.begin(), family.metric.end(), [&](const auto& metric) {
                    const Labels labels = LabelsOf(metric);
                    const auto found = labels.find(label);
                    return found != labels.end() && found->second == value;
                });
        }
        return count;
    }

    [[nodiscard]] const std::vector<prometheus::MetricFamily>& Families() const {
        return families_;
    }

private:
    static Labels LabelsOf(const prometheus::ClientMetric& metric) {
        Labels labels;
        for (const auto& label : metric.label) {
            EXPECT_TRUE(labels.emplace(label.name, label.value).second) << label.name;
        }
        return labels;
    }

    std::vector<prometheus::MetricFamily> families_;
};

/// Looks at the objects of this name or pattern.
class Look {
public:
    explicit Look(std::string pattern, RingTotals::Use use = RingTotals::Use::Totals,
                  std::size_t most = 10)
        : totals_(std::make_shared<RingTotals>(use)),
          collector_({{std::move(pattern)}, most}, totals_,
                     [this](const std::string& reason) { complaints_.push_back(reason); }) {}

    [[nodiscard]] Metrics Now() const { return Metrics(collector_.Collect()); }
    [[nodiscard]] RingTotals& Totals() { return *totals_; }
    [[nodiscard]] const std::vector<std::string>& Complaints() const { return complaints_; }

private:
    std::shared_ptr<RingTotals> totals_;
    std::vector<std::string> complaints_;
    ObjectCollector collector_;
};

}  // namespace qel::test
