#pragma once

#include "Board.h"
#include "Plan.h"
#include "Transports.h"

namespace qel {

/// The writer's process: paces frames into the transport and tells the board what that cost.
/// @return the process's exit status
/// @throws std::runtime_error
[[nodiscard]] int RunWriter(const Plan& plan, Transport& transport, Board& board);

}  // namespace qel
