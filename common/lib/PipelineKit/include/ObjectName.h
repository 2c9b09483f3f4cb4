#pragma once

#include <cstddef>
#include <string_view>

namespace qel {

/// Longest name of a block: the kernel's limit for the label of a memory file, less "/" and ".shm".
inline constexpr std::size_t kLongestBlockName = 244;

/// Longest name of a semaphore behind its slash: a file name's length less that of "sem.".
inline constexpr std::size_t kLongestSemaphoreName = 251;

/// What the names of all shared objects have in common: they become a part of a file's name.
/// @param kind  "ring", "block" or "semaphore", for the error's text
/// @throws std::invalid_argument when it is empty, has more than `longest` characters or holds a
///         slash
void RequireObjectName(std::string_view kind, std::string_view name, std::size_t longest);

}  // namespace qel
