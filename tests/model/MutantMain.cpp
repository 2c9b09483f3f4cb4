#include <iostream>
#include <string>

#include "SteppedPlans.h"

/// usage: PROGRAM EXPECTED
///
/// Searches the orders of a ring in which a fault was seeded. Succeeds when a search ends with the
/// failure EXPECTED.
int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " EXPECTED\n";
        return 2;
    }
    for (const auto& [name, plan] : qel::test::ExhaustivePlans()) {
        const auto result = qel::test::SteppedChain(plan).SearchAll();
        std::cout << name << ": " << result.runs << " runs, "
                  << (result.failure.empty() ? "not caught" : result.failure) << '\n';
        if (result.failure == argv[1]) {
            return 0;
        }
    }
    return 1;
}
