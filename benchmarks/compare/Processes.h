#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "NodeChain.h"

namespace qel::bench {

/// Keeps this thread, and those that it will start, to one of the cores that it may use.
void PinToCore(std::size_t which);

/// Runs each body in a process of its own, on a core of its own as far as there are enough.
/// @throws std::runtime_error when one of them fails or all do not end in time
void RunPinned(const std::vector<NodeChain::Body>& bodies, std::chrono::seconds patience);

/// Bytes of this process's memory that are resident, without what is mapped from files.
[[nodiscard]] std::uint64_t ResidentBesideFiles();

/// Allocations from the heap so far, if CountAllocations.cpp is preloaded, else 0.
[[nodiscard]] std::uint64_t AllocationsSoFar() noexcept;

}  // namespace qel::bench
