#pragma once

#include "StagePlan.h"

namespace qel {

/// Runs a chain of five processes, shows what it does and checks that all nodes saw the same.
/// @return the exit status
/// @throws UsageError for bad arguments, before anything is touched
/// @throws std::runtime_error when the chain failed; the text names the node
int RunMediaChain(const ChainOptions& options);

}  // namespace qel
