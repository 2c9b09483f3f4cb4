#pragma once

#include <string>
#include <vector>

#include "Outcome.h"
#include "PublishedTable.h"

namespace qel::test {

/// The outcomes of one scene's deaths, in the order of its steps. Deaths one after the other that
/// leave the same make one row.
class DeathRows {
public:
    /// A death right after `step`.
    void Add(const std::string& step, const Outcome& outcome);
    /// A death ahead of the step that comes next. It shows only if something has happened since the
    /// last step.
    void AddBeforeNext(const Outcome& outcome);

    /// Expects the rows of `title` in `table` to say this. Tells how many deaths that took.
    void ExpectPublished(const PublishedTable& table, const std::string& title) const;

private:
    struct Row {
        std::string first;
        std::string last;
        Outcome outcome;
    };

    std::vector<std::string> steps_;
    std::vector<Row> rows_;
    int deaths_ = 0;
};

/// A table of deaths, see PublishedTable.
PublishedTable DeathTable(const std::string& name, const std::string& program,
                          std::vector<std::string> titles);

}  // namespace qel::test
