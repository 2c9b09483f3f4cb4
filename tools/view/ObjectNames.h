#pragma once

#include <string>
#include <vector>

namespace qel {

/// Names of all rings, semaphores (without their slash) and blocks of this machine, in order, by
/// the files that stand for them.
/// @throws std::runtime_error when the folder cannot be read
[[nodiscard]] std::vector<std::string> RingNames();
[[nodiscard]] std::vector<std::string> SemaphoreNames();
[[nodiscard]] std::vector<std::string> BlockNames();

}  // namespace qel
