#include "Explorer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>

#include "CallFaults.h"
#include "FaultyRun.h"
#include "LongForm.h"
#include "RunCount.h"

namespace qel::test {
namespace {

/// One call of the fault-free run.
struct Position {
    std::string call;  ///< as recorded
    std::string operation;
    int nth;            ///< of the calls that look the same
    int ofOperation;    ///< of the calls of the operation
    std::size_t index;  ///< of all calls
};

std::vector<Position> PositionsOf(const std::vector<std::string>& calls) {
    std::map<std::string, int> seen;
    std::map<std::string, int> operations;
    std::vector<Position> positions;
    for (const std::string& call : calls) {
        const std::string operation = call.substr(0, call.find('('));
        const int ofOperation = ++operations[operation];
        positions.push_back({call, operation, ++seen[call], ofOperation, positions.size()});
    }
    return positions;
}

class Exploration {
public:
    Exploration(const ScenarioMaker& make, const Table& table)
        : make_(make), success_(table.success), rows_(AllRows(table)), givesUp_(table.givesUp) {}

    void On(Route route) {
        const Report clean = RunOnce(make_, {route, {}});
        ExpectOutcome(clean, success_);
        for (const Position& position : PositionsOf(clean.calls)) {
            const auto& faults = DocumentedFaults(position.operation);
            EXPECT_FALSE(faults.empty()) << "nothing is known of " << position.call;
            for (const Fault& fault : faults) {
                Refuse(route, position, fault);
            }
        }
    }

    void ExpectAllRowsMet() const {
        for (std::size_t row = 0; row < rows_.size(); ++row) {
            EXPECT_EQ(met_.count(row), 1U) << "never came: " << rows_[row].call;
        }
    }

private:
    /// The row for a refusal: one that names the error, or else the one for all errors.
    const Row* Find(Route route, const Position& position, const Fault& fault) {
        const Row* found = nullptr;
        for (std::size_t index = 0; index < rows_.size(); ++index) {
            const Row& row = rows_[index];
            const bool named =
                std::find(row.errors.begin(), row.errors.end(), fault.error) != row.errors.end();
            if (row.call != position.call || (row.nth != 0 && row.nth != position.nth) ||
                row.route.value_or(route) != route || (!row.errors.empty() && !named) ||
                (found != nullptr && !named)) {
                continue;
            }
            found = &row;
            met_.insert(index);
            if (named) {
                break;
            }
        }
        return found;
    }

    void Refuse(Route route, const Position& position, const Fault& fault) {
        const Row* const row = Find(route, position, fault);
        ASSERT_NE(row, nullptr) << "not foretold: " << position.call << " #" << position.nth
                                << " refused with " << fault.error;
        const bool thorough = IsLongForm() || tried_.emplace(route, position.index, row).second;
        Refusal refusal{position.operation, position.ofOperation, 1, fault};
        Run({route, {refusal}}, *row, row->once, position, thorough);
        if (thorough && fault.error != 0) {
            refusal.calls = kForEver;
            Run({route, {refusal}}, *row, row->ever.value_or(row->once), position, false);
        }
    }

    void Run(Plan plan, const Row& row, const Outcome& expected, const Position& position,
             bool refusesMore) {
        const Refusal& refusal = plan.refusals.front();
        const bool once = refusal.calls == 1;
        SCOPED_TRACE(position.call + " #" + std::to_string(position.nth) + " reports " +
                     std::to_string(refusal.fault.error) + (once ? " once" : " for ever") +
                     (plan.route == Route::Direct ? "" : ", through the interface"));
        CountRun();
        if (expected.endsProcess) {
            ExpectEndOfProcess(make_, plan);
            return;
        }
        const Report report = RunOnce(make_, plan);
        ExpectOutcome(report, expected);
        if (row.retried) {
            EXPECT_EQ(report.refusals, refusal.calls);
        } else {
            EXPECT_LT(report.refusals, kManyCalls) << "goes on and on";
        }
        if (expected.result == success_.result) {
            return;
        }
        if (report.canRecover) {
            plan.recover = true;
            Recover(plan, expected);
        }
        if (givesUp_ && refusesMore) {
            RefuseWhatFollows(plan, expected, PositionsOf(report.calls), position.index);
        }
    }

    /// Each call behind the one at `index` is refused too.
    void RefuseWhatFollows(const Plan& plan, const Outcome& expected,
                           const std::vector<Position>& positions, std::size_t index) {
        for (std::size_t next = index + 1; next < positions.size(); ++next) {
            const Position& second = positions[next];
            if (second.operation == positions[index].operation) {
                continue;  // is what refusing it for ever does
            }
            SCOPED_TRACE("and then " + second.call);
            CountRun();
            Plan both = plan;
            both.refusals.push_back({second.operation, second.ofOperation, 1,
                                     DocumentedFaults(second.operation).front()});
            const Report report = RunOnce(make_, both);
            EXPECT_EQ(TextOf(Returns(report.outcome.result), {}),
                      TextOf(Returns(expected.result), report.marks));
        }
    }

    /// Once more, with the fault over before the object ends.
    void Recover(const Plan& plan, const Outcome& expected) {
        CountRun();
        const Report report = RunOnce(make_, plan);
        const auto early = [&](const Outcome& outcome) {
            return TextOf(Returns(outcome.result).State(outcome.state), report.marks);
        };
        EXPECT_EQ(early(report.outcome), early(expected));
        EXPECT_EQ(report.recovered, success_.result) << "when the fault was over";
    }

    static void ExpectOutcome(const Report& report, const Outcome& expected) {
        EXPECT_EQ(TextOf(report.outcome, {}), TextOf(expected, report.marks));
    }

    const ScenarioMaker& make_;
    Outcome success_;
    std::vector<Row> rows_;
    bool givesUp_;
    std::set<std::size_t> met_;
    std::set<std::tuple<Route, std::size_t, const Row*>> tried_;
};

}  // namespace

void Explore(const ScenarioMaker& make, const Table& table, const std::vector<Route>& routes) {
    const int before = Runs();
    Exploration exploration(make, table);
    for (const Route route : routes) {
        exploration.On(route);
    }
    exploration.ExpectAllRowsMet();
    ::testing::Test::RecordProperty("runs", Runs() - before);
}

}  // namespace qel::test
