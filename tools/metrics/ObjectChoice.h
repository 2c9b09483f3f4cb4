#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qel {

/// Which of the machine's objects are shown.
struct ObjectChoice {
    std::vector<std::string> patterns;  ///< of names, as the shell's; none: all
    std::size_t most = 0;               ///< rings, blocks and semaphores each
};

struct ChosenNames {
    std::vector<std::string> names;
    std::size_t leftOut = 0;  ///< that were one too many
};

/// The first of `names` that are to be shown.
[[nodiscard]] ChosenNames ChooseFrom(std::vector<std::string> names, const ObjectChoice& choice);

}  // namespace qel
