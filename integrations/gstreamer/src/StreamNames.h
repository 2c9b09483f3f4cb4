#pragma once

#include <cstdint>
#include <string>

namespace qel {

/// The objects that make up a stream, named after its ring. Only processes that use the elements
/// make the ones beside the ring; a plain reader or writer of the ring does without them.
struct StreamNames {
    /// @throws std::invalid_argument when no stream can have this name
    explicit StreamNames(const std::string& name);

    /// The semaphore, without its slash, that wakes `node` when there is something for it.
    [[nodiscard]] std::string WakeUp(unsigned node) const;

    std::string ring;     ///< the packets
    std::string control;  ///< a second ring: what the packets' headers have no room for
    std::string caps;     ///< a block: what a reader that comes late has to know
};

/// Bytes of the control ring beside a ring of `ringSize` bytes: the same for whoever opens it.
[[nodiscard]] std::uint64_t ControlRingSize(std::uint64_t ringSize) noexcept;

}  // namespace qel
