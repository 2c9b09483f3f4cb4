#pragma once

#include <cstddef>
#include <cstdint>

namespace qel::fuzz {

/// A write of another process to the control block, in the midst of an operation.
struct Intrusion {
    unsigned loads;      ///< comes ahead of this one of the operation's loads, 1 being the first
    std::size_t offset;  ///< in the control block
    std::size_t width;   ///< 1 to 8 bytes
    std::uint64_t value;
};

/// Plans the next intrusion into the control block at `control`. It comes only in builds for
/// fuzzing, whose ring reports its loads; elsewhere the plan is without effect.
void Plan(unsigned char* control, const Intrusion& intrusion);

/// Drops what is planned. True if it has come by now.
bool EndPlan();

}  // namespace qel::fuzz
