#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ProcessSurvey.h"
#include "RingDeviation.h"
#include "RingFile.h"

namespace qel {

/// Who may be at work on a ring, as far as this user can see. Who only looks at it is left out.
struct RingUsers {
    std::vector<ObjectUser> users;
    unsigned hidden = 0;     ///< processes that may use it as well
    bool seesAll = true;     ///< false: /proc does not even list all
    bool isAnybody = false;  ///< somebody is at work, and nobody knows who

    [[nodiscard]] static RingUsers SeenOf(const RingFile& ring, const ProcessSurvey& processes);

    /// Where nobody is seen, the kernel is asked too, see WritersOf.
    [[nodiscard]] static RingUsers Of(const RingFile& ring, const ProcessSurvey& processes);

    /// True if nobody is there for certain.
    [[nodiscard]] bool AreNone() const noexcept { return users.empty() && !MayBeHidden(); }
    [[nodiscard]] bool MayBeHidden() const noexcept { return hidden > 0 || !seesAll || isAnybody; }

    /// Those that may be the node `node`: they claim it, or claim none.
    [[nodiscard]] std::vector<ObjectUser> Candidates(unsigned node) const;
    /// As far as can be seen.
    [[nodiscard]] NodesThere There() const;

    /// True if somebody claims it.
    [[nodiscard]] bool IsClaimed(unsigned node) const;
    /// Nothing if nobody claims a node.
    [[nodiscard]] std::optional<unsigned> LastClaimed() const;

    /// "12 processes are hidden from this user"; empty if there is nobody who cannot be seen.
    [[nodiscard]] std::string HiddenText() const;
};

}  // namespace qel
