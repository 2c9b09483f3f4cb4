#pragma once

#include "MetricFamilies.h"
#include "ProcessSurvey.h"

namespace qel {

/// Room in /dev/shm, and what of the machine cannot be seen.
/// @throws std::runtime_error when /dev/shm cannot be looked at
void AddMachine(const ProcessSurvey& processes, MetricFamilies& families);

}  // namespace qel
