#pragma once

#include <prometheus/collectable.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "MetricFamilies.h"
#include "ObjectChoice.h"
#include "ProcessSurvey.h"
#include "RingTotals.h"

namespace qel {

/// Looks at the machine's objects whenever it is asked, and keeps nothing of them.
///
/// Thread use: any thread; one looks at a time, others wait.
class ObjectCollector : public prometheus::Collectable {
public:
    using Complaint = std::function<void(const std::string& reason)>;

    /// @param totals    of the rings
    /// @param complain  is told why something cannot be looked at; of each reason once, until it
    ///                  has been gone
    ObjectCollector(ObjectChoice choice, std::shared_ptr<const RingTotals> totals,
                    Complaint complain);

    /// What cannot be looked at is counted.
    [[nodiscard]] std::vector<prometheus::MetricFamily> Collect() const override;

private:
    struct Look;

    ObjectChoice choice_;
    std::shared_ptr<const RingTotals> totals_;
    Complaint complain_;
    mutable std::mutex mutex_;
    mutable std::uint64_t failures_ = 0;
    mutable std::set<std::string> reasons_;  ///< of the last look
};

}  // namespace qel
