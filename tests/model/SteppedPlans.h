#pragma once

#include <string>
#include <vector>

#include "SteppedChain.h"

namespace qel::test {

struct NamedPlan {
    std::string name;
    ChainPlan plan;
};

/// Short chains of which every order is searched. All fill the ring, empty it and go round its end.
inline const std::vector<NamedPlan>& ExhaustivePlans() {
    static const std::vector<NamedPlan> kPlans{
        {"PacketLimit", {120, 3, 1, 0, {{10, true}, {40, true}, {20, true}}}},
        {"PacketsKept", {150, 3, 1, 1, {{10, true}, {40, true}, {30, true}}}},
        {"MixedSizes", {120, 3, 0, 0, {{10, true}, {40, true}, {0, true}}}},
        {"Reserve", {230, 3, 0, 0, {{40, false}, {60, false}, {50, true}}}},
    };
    return kPlans;
}

/// More of the same, for the long form.
inline const std::vector<NamedPlan>& LongExhaustivePlans() {
    static const std::vector<NamedPlan> kPlans{
        {"MixedSizes", {120, 3, 0, 0, {{10, true}, {40, true}, {0, true}, {20, true}}}},
        {"Reserve", {230, 3, 0, 0, {{40, false}, {60, false}, {50, true}, {0, false}}}},
        {"PacketsKept", {150, 3, 2, 1, {{10, true}, {40, true}, {30, true}}}},
        {"FourNodes", {120, 4, 1, 0, {{10, true}, {40, true}}}},
    };
    return kPlans;
}

/// Several laps, for searches that do not follow every order.
inline ChainPlan LongPlan(unsigned nodes, std::uint32_t maxFrames, std::size_t kept) {
    ChainPlan plan{250, nodes, maxFrames, kept, {}};
    for (const std::size_t length : {10U, 90U, 0U, 45U, 70U, 26U, 5U, 90U, 33U, 64U, 0U, 17U}) {
        plan.packets.push_back({length, length % 2 == 1});
    }
    return plan;
}

}  // namespace qel::test
