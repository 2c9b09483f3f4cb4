#include <gmock/gmock.h>

#include <iostream>
#include <string>
#include <vector>

#include "LongForm.h"
#include "SteppedChain.h"
#include "SteppedPlans.h"

namespace qel::test {
namespace {

void ExpectSound(const Interleavings::Result& result) {
    std::cout << result.runs << " runs, " << result.states << " states, up to " << result.steps
              << " steps\n";
    EXPECT_EQ(result.failure, "") << "after " << result.schedule;
}

/// Appends the lines that say what `node` does.
void Append(std::vector<std::string>& lines, int node, const std::vector<std::string>& steps) {
    for (const std::string& step : steps) {
        lines.push_back(std::to_string(node) + ": " + step);
    }
}

// "read 4" is maxPackets, which does not change.
const std::vector<std::string> kChecks{"load avail[0]", "read 4", "load numPackets",
                                       "load wIdx[0]"};
const std::vector<std::string> kHeaderWritten{"write 8", "write 8", "write 8", "write 2"};
const std::vector<std::string> kCountedAndHandedOn{
    "read 4",        "add numPackets", "load avail[0]", "subtract avail[0]",
    "load avail[1]", "add avail[1]",   "load wIdx[0]",  "store wIdx[0]"};
const std::vector<std::string> kRefused{"load avail[0]", "read 4", "load numPackets"};

void AppendRead(std::vector<std::string>& lines, int node) {
    const std::string avail = "avail[" + std::to_string(node) + "]";
    const std::string index = "rIdx[" + std::to_string(node) + "]";
    Append(
        lines, node,
        {"load " + avail, "load " + index, "read 8", "read 8", "read 8", "read 2", "load " + avail,
         "load " + index, "load " + avail, "subtract " + avail, "load " + index, "store " + index});
}

TEST(StepsOfTheRing, AreThoseOfTheModelInItsOrder) {
    // The second record would leave less than a header's room.
    SteppedChain chain({120, 3, 2, 0, {{20, true}, {40, true}}});
    std::vector<std::string> expected;
    Append(expected, 0, kChecks);
    Append(expected, 0, kHeaderWritten);
    Append(expected, 0, {"write 16", "write 4"});
    Append(expected, 0, kCountedAndHandedOn);
    Append(expected, 0, kChecks);  // it does not fit before the end
    Append(expected, 0, kChecks);  // the filler does
    Append(expected, 0, kHeaderWritten);
    Append(expected, 0, {"load wIdx[0]", "store wIdx[0]"});
    Append(expected, 0, kCountedAndHandedOn);
    Append(expected, 0, {"load wIdx[0]"});
    Append(expected, 0, kRefused);
    for (int record = 0; record < 2; ++record) {
        AppendRead(expected, 1);
        Append(expected, 1, {"load avail[2]", "add avail[2]"});
    }
    Append(expected, 1, {"load avail[1]"});  // nothing waits
    Append(expected, 0, kRefused);
    for (int record = 0; record < 2; ++record) {
        AppendRead(expected, 2);
        Append(
            expected, 2,
            {"load avail[0]", "add avail[0]", "read 4", "load numPackets", "subtract numPackets"});
    }
    const std::vector<std::string> trace = chain.Trace();
    ASSERT_GE(trace.size(), expected.size());
    const std::vector<std::string> beginning(
        trace.begin(), trace.begin() + static_cast<std::ptrdiff_t>(expected.size()));
    EXPECT_THAT(beginning, testing::ElementsAreArray(expected));
}

class EveryOrderOfTheRing : public testing::TestWithParam<NamedPlan> {};

TEST_P(EveryOrderOfTheRing, DeliversAllAndKeepsAllPromises) {
    SteppedChain chain(GetParam().plan);
    ExpectSound(chain.SearchAll());
}

TEST(OrdersOfTheRing, OfTheLongFormDeliversAllToo) {
    if (!IsLongForm()) {
        GTEST_SKIP() << "QEV_TEST_LONG=1 runs it";
    }
    for (const auto& [name, plan] : LongExhaustivePlans()) {
        std::cout << name << ": ";
        ExpectSound(SteppedChain(plan).SearchAll());
    }
}

INSTANTIATE_TEST_SUITE_P(Plans, EveryOrderOfTheRing, testing::ValuesIn(ExhaustivePlans()),
                         [](const auto& plan) { return plan.param.name; });

TEST(OrdersOfTheRing, WithFewPreemptionsOverSeveralLapsKeepAllPromises) {
    for (const std::uint32_t maxFrames : {0U, 2U}) {
        SteppedChain chain(LongPlan(3, maxFrames, 0));
        ExpectSound(chain.SearchAll(IsLongForm() ? 3 : 1));
    }
}

TEST(OrdersOfTheRing, OfFiveNodesAtRandomKeepAllPromises) {
    const std::uint64_t runs = IsLongForm() ? 20'000 : 500;
    for (const std::uint32_t maxFrames : {0U, 3U}) {
        for (const std::size_t kept : {0U, 1U}) {
            SteppedChain chain(LongPlan(5, maxFrames, kept));
            ExpectSound(chain.SearchRandomly(1, runs));
        }
    }
}

}  // namespace
}  // namespace qel::test
