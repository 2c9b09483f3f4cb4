#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "RingDeviation.h"
#include "RingFile.h"
#include "RingGlance.h"
#include "RingUsers.h"

namespace qel {

/// How long a deviation is looked at before it counts: a node that is at work shows one in the
/// middle of every operation, and may be interrupted there.
struct Patience {
    unsigned looks = 20;
    std::chrono::microseconds settled{400'000};    ///< over so long
    std::chrono::microseconds longest{2'000'000};  ///< where somebody alive may be in the middle
    std::function<void(std::chrono::microseconds)> pause{};  ///< to be called instead of sleeping
};

struct RingJudgeOptions {
    std::optional<unsigned> nodes;  ///< that the chain has, when it is known
    Patience patience;
    /// Who uses the ring now; called before anything is said of a ring that nobody seemed to use.
    std::function<RingUsers()> lookAgain{};
};

/// A deviation that stayed.
struct JudgedDeviation {
    enum class Doubt {
        None,     ///< nobody who is there can be in the middle of anything
        Stopped,  ///< somebody who may be is stopped
        Waiting,  ///< somebody who may be is ready to run, and was not run all the while
        Hidden,   ///< there are processes that cannot be seen
    };
    RingDeviation deviation;
    Doubt doubt = Doubt::None;
    std::vector<ObjectUser> suspects{};  ///< who is stopped, or waits
};

struct RingJudgement {
    RingFields fields;  ///< as last seen
    RingUsers users;
    unsigned sink = 1;
    /// The fields do not tell how long the chain is, and it makes a difference.
    bool isChainUnclear = false;
    std::vector<JudgedDeviation> found;
};

/// Looks at a ring, as long as it takes: no longer than a glance if nothing is wrong, and never
/// much longer than patience allows.
[[nodiscard]] RingJudgement JudgeRing(const RingFile& ring, const RingUsers& users,
                                      const RingJudgeOptions& options);

}  // namespace qel
