#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "File.h"
#include "GuardedPage.h"
#include "RingFile.h"
#include "RingUsers.h"

namespace qel {

struct RingRepairOptions {
    std::optional<unsigned> nodes;           ///< that the chain has
    std::optional<std::uint32_t> maxFrames;  ///< else the limit stays as it is; 0: none
};

/// How a ring is put right, or why it cannot be.
struct RingRepairPlan {
    std::string refusal;  ///< empty if it can
    std::string instead;  ///< what to do then
    RingFields before;
    RingFields after;
    std::vector<std::string> remarks{};  ///< what is lost and what is kept, in plain words

    [[nodiscard]] bool CanBeDone() const noexcept { return refusal.empty(); }
    /// "avail[1]  1200 -> 1352", for each field that changes.
    [[nodiscard]] std::vector<std::string> Changes() const;
};

/// Finds out by the rule of repair what to do with a ring that nobody works on.
[[nodiscard]] RingRepairPlan PlanRepair(const RingFile& ring, const RingRepairOptions& options);

/// Keeps those away from a ring who open it with OpenRing or claim its nodes, for as long as it
/// lives. Others, who use the bare library, it cannot keep away.
class RingHold {
public:
    enum class IfInUse { Refuse, GoOn };

    /// @throws std::runtime_error when the ring may not be written to, is not the one looked at any
    ///         more, or somebody opens it or claims a node of it at this moment
    RingHold(const RingFile& ring, IfInUse ifInUse);

    /// Sets the fields of the plan one after the other. Whoever is killed in the middle of this
    /// leaves a ring for which the plan is the same.
    /// @param afterEach  called after each store
    /// @throws std::runtime_error when the ring was not what the plan is for, or is not what it
    /// says
    ///         afterwards
    void Apply(const RingRepairPlan& plan, const std::function<void()>& afterEach = {}) const;

private:
    const RingFile& ring_;
    File file_;
    GuardedPage page_;
};

}  // namespace qel
