#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Finding.h"

namespace qel {

struct Machine {
    std::string root = "/";  ///< where its settings stand
    /// Whose objects count; else this user's and those of all who have rings or semaphores here.
    std::optional<std::vector<uid_t>> owners{};
};

/// What the machine does to shared objects: room in /dev/shm, settings of the kernel, of logins and
/// of what tidies up. What cannot be read is said.
[[nodiscard]] Findings CheckMachine(const Machine& machine);

}  // namespace qel
