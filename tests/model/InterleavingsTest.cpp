#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

#include "Interleavings.h"

namespace qel::test {
namespace {

/// Two nodes that add 1 to a number, by a load and a store.
struct Adders {
    std::array<int, 1> shared{};
    Interleavings search{&shared, sizeof shared};
    bool retries = false;

    Interleavings::Run NewRun(const std::function<std::string()>& atEnd) {
        shared[0] = 0;
        const auto add = [this] {
            search.Step();
            const int known = shared[0];
            search.Note(static_cast<std::uint64_t>(known));
            search.Step();
            shared[0] = known + 1;
        };
        return {{add, add}, atEnd};
    }
};

TEST(SearchOfInterleavings, FindsAnUpdateThatIsLost) {
    Adders adders;
    const auto result = adders.search.SearchAll(
        [&] { return adders.NewRun([&] { return adders.shared[0] == 2 ? "" : "lost"; }); });
    EXPECT_EQ(result.failure, "lost");
    EXPECT_FALSE(result.schedule.empty());
}

TEST(SearchOfInterleavings, WithoutPreemptionRunsOneNodeAfterTheOther) {
    Adders adders;
    const auto result = adders.search.SearchAll(
        [&] { return adders.NewRun([&] { return adders.shared[0] == 2 ? "" : "lost"; }); }, 0);
    EXPECT_EQ(result.failure, "");
    EXPECT_GE(result.runs, 2U);
}

TEST(SearchOfInterleavings, RandomOrdersRepeatWithTheirSeed) {
    std::array<std::string, 2> schedules;
    for (auto& schedule : schedules) {
        Adders adders;
        schedule =
            adders.search
                .SearchRandomly(
                    [&] {
                        return adders.NewRun([&] { return adders.shared[0] == 2 ? "" : "lost"; });
                    },
                    7, 1000)
                .schedule;
    }
    EXPECT_FALSE(schedules[0].empty());
    EXPECT_EQ(schedules[0], schedules[1]);
}

TEST(SearchOfInterleavings, MeetsEveryOrderOfTwoNodes) {
    struct Memory {
        std::array<char, 8> order;
        std::size_t length;
    } memory{};
    Interleavings search(&memory, sizeof memory);
    std::set<std::string> orders;
    const auto write = [&](char sign) {
        return [&, sign] {
            for (int i = 0; i < 4; ++i) {
                search.Step();
                memory.order.at(memory.length++) = sign;
            }
        };
    };
    const auto result = search.SearchAll([&] {
        memory = {};
        return Interleavings::Run{{write('a'), write('b')}, [&] {
                                      orders.emplace(memory.order.data(), memory.length);
                                      return "";
                                  }};
    });
    EXPECT_EQ(result.failure, "");
    EXPECT_EQ(orders.size(), 70U);  // 8 over 4
}

TEST(SearchOfInterleavings, FindsThatNobodyCanGoOn) {
    std::array<bool, 2> flags{};
    Interleavings search(&flags, sizeof flags);
    // Each lowers its flag when it finds the other's raised: whoever comes second does not wait.
    const auto body = [&](std::size_t mine) {
        return [&, mine] {
            search.Step();
            flags.at(mine) = true;
            search.NoteChange();
            for (;;) {
                search.BeginAttempt();
                search.Step();
                search.Note(flags.at(1 - mine) ? 1 : 0);
                if (!flags.at(1 - mine)) {
                    return;
                }
                search.AwaitChange();
            }
        };
    };
    const auto result = search.SearchAll([&] {
        flags = {};
        return Interleavings::Run{{body(0), body(1)}, [] { return ""; }};
    });
    EXPECT_EQ(result.failure, "nobody can go on");
}

}  // namespace
}  // namespace qel::test
