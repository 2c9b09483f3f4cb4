#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AccessTrap.h"
#include "Operations.h"
#include "Traffic.h"

namespace qel::test {

/// What a process had done when it was killed.
struct Death {
    bool killed = false;  ///< false: the operation has ended before
    std::vector<AccessTrap::Access> accesses;
};

/// Has a forked process begin `operation` at `node` and kills it after its `kill`th access.
Death Kill(const RingImage& ring, const Operation& operation, std::uint8_t node,
           std::uint64_t kill);

struct Step {
    std::string operation;  ///< as the table has it
    std::string name;
};

/// The step that a process died after. A step is a store, or several in a row to the same fields;
/// to begin is one as well. Behind a filler the steps are those of a write that does not wrap.
/// @param before, after  the ring at the start and as it was left
Step LastStep(const Operation& operation, std::uint8_t node,
              const std::vector<AccessTrap::Access>& accesses, const RingImage::Bytes& before,
              const RingImage::Bytes& after);

}  // namespace qel::test
