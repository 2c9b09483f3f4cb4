#pragma once

#include "Board.h"
#include "Plan.h"
#include "Transports.h"

namespace qel {

/// The reader's process: checks each frame that arrives and tells the board what that cost.
/// @return the process's exit status
/// @throws std::runtime_error
[[nodiscard]] int RunReader(const Plan& plan, Transport& transport, Board& board);

}  // namespace qel
