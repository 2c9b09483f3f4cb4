#include "RunCount.h"

#include <gtest/gtest.h>

#include <iostream>

namespace qel::test {
namespace {

int runs = 0;

/// Tells the figure at the end.
class Summary : public ::testing::Environment {
public:
    void TearDown() override { std::cout << "runs with a fault: " << runs << "\n"; }
};

[[maybe_unused]] const auto* const summary =
    ::testing::AddGlobalTestEnvironment(new Summary);  // gtest owns it

}  // namespace

int Runs() {
    return runs;
}

void CountRun() {
    ++runs;
}

}  // namespace qel::test
