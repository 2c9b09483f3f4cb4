#pragma once

#include <vector>

#include "Outcome.h"
#include "Scenario.h"

namespace qel::test {

/// Does a scenario once without faults, and then again for every call that it makes and everything
/// that this call is documented to report: with this one call refused, and with this call and all
/// later ones of the same operation refused.
///
/// Where a failure ends the object, each call that follows is refused too, one at a time.
///
/// After each run:
///  - result, standard output, log and state are exactly those of the table's row;
///  - the process holds the descriptors, mappings and threads that it held before, and no lock;
///  - the scenario works again: with the same object where that outlives the failure, and with new
///    ones, without loss of what was there before.
/// After two refusals the result, and what is left behind, are those of the first.
///
/// A call without a row fails the test, and so does a row that no run has met.
///
/// In the short form, of the errors of a call that have one row, only the first is reported for
/// ever and with a second refusal. QEV_TEST_LONG=1 in the environment does so with all.
///
/// A call that is made again after an interruption is interrupted 1000 times and then succeeds.
void Explore(const ScenarioMaker& make, const Table& table,
             const std::vector<Route>& routes = {Route::Interface, Route::Direct});

/// For scenarios that the library's interface of calls does not reach.
inline void ExploreDirectCalls(const ScenarioMaker& make, const Table& table) {
    Explore(make, table, {Route::Direct});
}

}  // namespace qel::test
