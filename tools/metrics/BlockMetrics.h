#pragma once

#include <string>

#include "MetricFamilies.h"
#include "ProcessSurvey.h"

namespace qel {

/// What can be seen of the block `name`; nothing if there is none.
/// @throws std::runtime_error when its lock file cannot be read
void AddBlock(const std::string& name, const ProcessSurvey& processes, MetricFamilies& families);

}  // namespace qel
