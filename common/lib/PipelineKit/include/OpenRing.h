#pragma once

#include <memory>

#include "SharedBufferIF.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// Opens the ring that `info` describes for one node, making its object when there is none, with
/// the care that the library leaves to its clients:
///  - name, size, node and sink are checked before anything is touched;
///  - an object of another size is refused, where the library would cut it to the new one;
///  - its memory is reserved, so that a full /dev/shm is an error here and no bus error later;
///  - clients that come at the same time wait for each other until the ring is initialised.
///
/// @return the caller's; never empty
/// @throws std::invalid_argument for a description that no ring or this ring cannot have
/// @throws RingError when a system call fails
/// @throws std::runtime_error when the library fails, which says why on standard output
[[nodiscard]] std::unique_ptr<SharedPacketBufferIF> OpenRing(
    const SharedBufferIF::BufferInfo& info);

}  // namespace qel
