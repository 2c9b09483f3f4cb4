#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

namespace qel {

/// What can be seen of a semaphore without opening it as one: nothing is taken or posted.
struct SemaphoreView {
    struct stat status {};
    bool isWhole = false;  ///< its file has the length of a semaphore
    std::uint32_t value = 0;
    std::uint32_t waiting = 0;  ///< threads that wait for a unit
};

/// @param name  without its slash
/// @return nothing if there is none
/// @throws std::runtime_error when it cannot be read
[[nodiscard]] std::optional<SemaphoreView> LookAtSemaphore(const std::string& name);

}  // namespace qel
