#pragma once

namespace qel::test {

/// Runs with a fault so far, the figure that the program ends with.
[[nodiscard]] int Runs();
void CountRun();

}  // namespace qel::test
