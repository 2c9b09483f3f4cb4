#include "DeathTable.h"

#include <iostream>
#include <utility>

namespace qel::test {

void DeathRows::Add(const std::string& step, const Outcome& outcome) {
    ++deaths_;
    if (steps_.empty() || steps_.back() != step) {
        steps_.push_back(step);
    }
    if (!rows_.empty() && rows_.back().outcome == outcome) {
        rows_.back().last = step;
    } else {
        rows_.push_back({step, step, outcome});
    }
}

void DeathRows::AddBeforeNext(const Outcome& outcome) {
    if (rows_.empty() || !(rows_.back().outcome == outcome)) {
        Add(steps_.empty() ? "the start" : "what follows it in memory", outcome);
    } else {
        ++deaths_;
    }
}

void DeathRows::ExpectPublished(const PublishedTable& table, const std::string& title) const {
    std::cout << deaths_ << " deaths\n";
    std::vector<std::vector<std::string>> rows;
    for (const Row& row : rows_) {
        rows.push_back({StepRange(row.first, row.last), row.outcome.left, row.outcome.next,
                        row.outcome.see, row.outcome.right});
    }
    table.Expect(title, steps_, rows);
}

PublishedTable DeathTable(const std::string& name, const std::string& program,
                          std::vector<std::string> titles) {
    return {name, "build/release/tests/fault/blocks/" + program,
            "| a process that … | died after | left behind | what the next process sees "
            "| how to see it | how to put it right |",
            std::move(titles)};
}

}  // namespace qel::test
