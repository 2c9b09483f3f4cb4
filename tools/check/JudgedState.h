#pragma once

#include "ProcessSurvey.h"
#include "RingFile.h"
#include "RingState.h"

namespace qel {

/// The state of a ring, for which its records are looked at too, see HealthOf.
/// @param moves  something has moved while it was looked at
[[nodiscard]] RingState JudgedStateOf(const RingFile& ring, const RingFields& fields, bool moves,
                                      const ProcessSurvey& processes);

}  // namespace qel
