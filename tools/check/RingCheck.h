#pragma once

#include <cstdint>
#include <optional>

#include "Finding.h"
#include "RingJudge.h"

namespace qel {

struct RingCheckOptions {
    RingJudgeOptions judge;
    std::optional<std::uint32_t> maxFrames;  ///< limit that the ring should have; 0: none
};

/// All that is wrong with a ring, with its processes as far as they bear on it, and the commands
/// that mend it.
/// @throws std::runtime_error when the object cannot be looked at any more
[[nodiscard]] Findings CheckRing(const RingFile& ring, const RingUsers& users,
                                 const RingCheckOptions& options);

/// The state of a ring in one word.
enum class RingHealth {
    Sound,
    NeverInitialised,
    Desynchronised,  ///< a death has left it so, most likely; `qev repair` puts it right
    Damaged,         ///< nobody can put it right
};

/// As CheckRing judges it, but no longer than some 50 ms: a process that is interrupted in the
/// middle of a step for all of that time makes a sound ring look desynchronised.
[[nodiscard]] RingHealth HealthOf(const RingFile& ring, const RingUsers& users);

}  // namespace qel
