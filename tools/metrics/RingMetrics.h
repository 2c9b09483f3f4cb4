#pragma once

#include <string>

#include "MetricFamilies.h"
#include "ProcessSurvey.h"
#include "RingTotals.h"

namespace qel {

/// What can be seen of the ring `name`; nothing if there is none.
/// @throws std::runtime_error when its object cannot be opened
void AddRing(const std::string& name, const ProcessSurvey& processes, const RingTotals& totals,
             MetricFamilies& families);

}  // namespace qel
