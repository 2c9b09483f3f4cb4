#pragma once

#include <string>

#include "HelpTree.h"

namespace qel {

/// A file that teaches bash to complete the command `root`: verbs, options, values that are
/// choices, files, users and groups, and the names of rings, blocks and semaphores that are there.
/// It needs nothing but bash, and runs no program.
///
/// What a value is follows from what stands for it (`HelpOption::value`): FILE, FOLDER, USER,
/// GROUP, RING, BLOCK or SEMAPHORE. NAME is that of an object: of a ring, a block or a semaphore,
/// whichever of these words its help has, or else any.
[[nodiscard]] std::string CompletionOf(const HelpCommand& root);

}  // namespace qel
