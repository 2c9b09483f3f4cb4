#pragma once

#include <map>
#include <string>
#include <vector>

#include "Outcome.h"
#include "Scenario.h"

namespace qel::test {

inline constexpr int kForEver = 1000;  ///< refusals, after which a call that goes on succeeds
inline constexpr int kManyCalls = 50;  ///< more than any operation makes that does not go on

/// A call that is refused.
struct Refusal {
    std::string operation;
    int nth = 0;    ///< of the operation's calls, from 1 on
    int calls = 1;  ///< how many from there on
    Fault fault;
};

/// Which calls are refused in a run.
struct Plan {
    Route route = Route::Direct;
    std::vector<Refusal> refusals;
    bool recover = false;  ///< ends the fault after the operation and uses the object again
};

/// What came of a run.
struct Report {
    Outcome outcome;
    std::vector<std::string> calls;            ///< as recorded
    std::map<std::string, std::string> marks;  ///< for the outcome that is expected
    int refusals = 0;
    bool canRecover = false;
    std::string recovered;  ///< what the operation did when it was done again
    bool failed = false;    ///< the operation met the fault and did not succeed
};

/// Does a scenario with new objects, and asserts that it leaves nothing behind.
[[nodiscard]] Report RunOnce(const ScenarioMaker& make, const Plan& plan);

/// The same where the process is expected to be ended by std::terminate: does it in a process of
/// its own, and asserts that nothing stays locked and all works again.
void ExpectEndOfProcess(const ScenarioMaker& make, const Plan& plan);

}  // namespace qel::test
