#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ProcessSurvey.h"
#include "RingFlow.h"
#include "RingRecords.h"

namespace qel {

struct InspectOptions {
    WalkLimits records;
    std::optional<unsigned> nodes;  ///< that the chain has, when it is known
};

/// What must be so of a ring between two operations.
struct Invariant {
    std::string text;
    std::optional<bool> holds;  ///< nothing where it cannot be told
    std::string detail{};       ///< why it does not hold
};

/// Records of one node: those it has read and not released, or those that wait for it.
struct RingStretch {
    unsigned node = 1;
    bool isHeld = false;
    std::uint64_t offset = 0;
    std::uint64_t bytes = 0;
    RecordWalk walk{};
};

/// All that can be told of a ring without taking part in it.
struct RingInspection {
    struct stat status {};
    std::uint64_t size = 0;  ///< of the data area
    RingFields fields;
    bool isStill = false;  ///< the fields were the same before and after all was looked at
    unsigned sink = 1;
    bool isSinkGiven = false;
    bool isFresh = false;          ///< nobody has opened it yet: there is nothing to derive
    std::optional<RingFlow> flow;  ///< nothing if the fields cannot be those of a ring
    std::uint64_t largestNow = 0;  ///< payload that an ordinary write could place at once
    std::vector<RingStretch> stretches;
    std::vector<Invariant> invariants;
    std::vector<ObjectUser> users;
    unsigned hiddenProcesses = 0;
};

/// Looks at `ring` until it stands still while it is looked at, for a few times.
[[nodiscard]] RingInspection Inspect(const RingFile& ring, const ProcessSurvey& processes,
                                     const InspectOptions& options);

[[nodiscard]] std::string TextOf(const std::string& name, const RingInspection& inspection,
                                 const InspectOptions& options);
[[nodiscard]] std::string JsonOf(const std::string& name, const RingInspection& inspection);

}  // namespace qel
