#pragma once

#include <string>

namespace qel {

/// Asks on the terminal, and returns if the answer is yes.
/// @throws std::runtime_error if it is not, or there is no terminal to ask on
void Confirm(const std::string& question);

}  // namespace qel
