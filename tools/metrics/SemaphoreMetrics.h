#pragma once

#include <string>

#include "MetricFamilies.h"
#include "ProcessSurvey.h"

namespace qel {

/// What can be seen of the semaphore `name`; nothing if there is none.
/// @throws std::runtime_error when it cannot be read
void AddSemaphore(const std::string& name, const ProcessSurvey& processes,
                  MetricFamilies& families);

}  // namespace qel
