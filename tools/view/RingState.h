#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "ProcessSurvey.h"
#include "RingFields.h"

namespace qel {

/// What becomes of a ring, at a glance.
enum class RingState {
    Live,              ///< packets move
    Idle,              ///< in use, nothing moves
    Orphaned,          ///< nobody uses it
    Unseen,            ///< nobody is seen to use it, and not all processes can be seen
    Fresh,             ///< nobody has opened it yet
    NeverInitialised,  ///< its first user ended before it had made it a ring
    Desynchronised,    ///< no ring of its size can have such fields
};

/// @param size   bytes of the data area
/// @param moves  something has moved while it was looked at
/// @param users  of its object, from `processes`; who can only look does not use it
[[nodiscard]] RingState RingStateOf(const RingFields& fields, std::uint64_t size, bool moves,
                                    const std::vector<ObjectUser>& users,
                                    const ProcessSurvey& processes);

/// "live", "never initialised" and so on.
[[nodiscard]] std::string_view TextOf(RingState state);

}  // namespace qel
