#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "NamedSemaphore.h"
#include "SoakBoard.h"

namespace qel::test {

/// One process's handles of two semaphores: `kSoakUnits` units, and a gate of one unit, so that
/// only one process at a time waits for several.
class SoakSemaphores {
public:
    SoakSemaphores(std::string units, std::string gate, unsigned node, SoakBoard& board);

    /// Takes and gives in one of six ways.
    /// @throws std::runtime_error  if more units are taken than there are
    void Turn(std::uint64_t number);
    /// Closes the handles, some with a balance to settle, and opens them anew.
    void Reopen(std::uint64_t number);
    void Close();

private:
    void Open();
    void TakeOne(std::uint64_t way);
    void TakeSeveral(bool waiting);
    void KeepOrReturn();
    void CountIn(int units);
    void CountOut(int units);

    std::string unitsName_;
    std::string gateName_;
    SoakBoard& board_;
    SoakFigures& figures_;
    std::optional<NamedSemaphore> units_;
    std::optional<NamedSemaphore> gate_;
    bool keeps_ = false;  ///< one unit, from one turn to another
};

}  // namespace qel::test
