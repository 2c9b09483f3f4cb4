#pragma once

#include <string>

#include "Finding.h"
#include "ProcessSurvey.h"

namespace qel {

/// What was found of one object that is no ring.
struct ObjectReport {
    std::string summary;  ///< "4096 bytes, used by 2 processes"
    Findings findings;
};

/// A block by its lock file. Takes no lock.
/// @throws std::runtime_error when it cannot be looked at, or is not there
[[nodiscard]] ObjectReport CheckBlock(const std::string& name, const ProcessSurvey& processes);

/// A semaphore by its file.
/// @throws std::runtime_error when it cannot be looked at, or is not there
[[nodiscard]] ObjectReport CheckSemaphore(const std::string& name, const ProcessSurvey& processes);

}  // namespace qel
