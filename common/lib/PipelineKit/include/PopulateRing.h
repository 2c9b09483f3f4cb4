#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <functional>

#include "SharedPacketBufferIF.h"

namespace qel {

/// `madvise`, or a substitute for it.
using AdviseFunction = std::function<int(void*, std::size_t, int)>;

/// Makes all pages of a ring present in this process, so that no write or read stops at a page's
/// first use. Changes no content: safe on a ring that is in use. Each process does it for itself.
///
/// Where the kernel cannot do it in one call (before Linux 5.14), a byte of every page is read
/// instead, which makes pages readable at least. That read meets a bus error if the object has
/// holes and memory is short: open rings with `OpenRing` or make them with `RingObject`.
///
/// @param size  bytes of the ring's data area
/// @throws RingError with `ENOMEM` or `EFAULT` when memory is short
/// @throws std::invalid_argument when `size` is larger than the ring
void PopulateRing(SharedPacketBufferIF& ring, std::uint64_t size,
                  const AdviseFunction& advise = madvise);

}  // namespace qel
