#include "Outcome.h"

#include <cerrno>

namespace qel::test {
namespace {

std::string Replaced(std::string text, const std::map<std::string, std::string>& marks) {
    for (const auto& [mark, value] : marks) {
        for (auto at = text.find(mark); at != std::string::npos;
             at = text.find(mark, at + value.size())) {
            text.replace(at, mark.size(), value);
        }
    }
    return text;
}

}  // namespace

Outcome Outcome::Prints(const std::string& text) const {
    Outcome changed = *this;
    changed.printed += text;
    return changed;
}

Outcome Outcome::LogsOfRing(const std::string& operation, int line, const std::string& text) const {
    Outcome changed = *this;
    changed.logged.push_back("2 8010 common/lib/SharedMemory/src/SharedBuffer " + operation + " " +
                             std::to_string(line) + ": " + text);
    return changed;
}

Outcome Outcome::LogsOfLockFile(int level, const std::string& operation,
                                const std::string& text) const {
    Outcome changed = *this;
    changed.logged.push_back(std::to_string(level) +
                             " 8027 common/lib/LockFile/include/LockFileImpl " + operation + ": " +
                             text);
    return changed;
}

Outcome Outcome::State(const std::string& text) const {
    Outcome changed = *this;
    changed.state = text;
    return changed;
}

Outcome Outcome::Left(const std::string& text) const {
    Outcome changed = *this;
    changed.left = text;
    return changed;
}

Outcome Returns(const std::string& text) {
    Outcome outcome;
    outcome.result = text;
    return outcome;
}

Outcome Throws(const std::string& text, const std::string& type) {
    return Returns("throws " + type + ": " + text);
}

Outcome EndsProcess() {
    Outcome outcome;
    outcome.endsProcess = true;
    return outcome;
}

std::string TextOf(const Outcome& outcome, const std::map<std::string, std::string>& marks) {
    std::string text = "result: " + outcome.result + "\nprinted: " + outcome.printed;
    for (const std::string& record : outcome.logged) {
        text += "\nlogged: " + record;
    }
    text += "\nstate: " + outcome.state + "\nleft: " + outcome.left;
    return Replaced(text, marks);
}

Row Row::Ever(const Outcome& outcome) const {
    Row changed = *this;
    changed.ever = outcome;
    return changed;
}

Row Row::For(const std::vector<int>& only) const {
    Row changed = *this;
    changed.errors = only;
    return changed;
}

Row Row::Nth(int number) const {
    Row changed = *this;
    changed.nth = number;
    return changed;
}

Row Row::On(Route only) const {
    Row changed = *this;
    changed.route = only;
    return changed;
}

Row At(const std::string& call, const Outcome& outcome) {
    Row row;
    row.once = outcome;
    row.call = call;
    return row;
}

std::vector<Row> AllRows(const Table& table) {
    std::vector<Row> rows = table.rows;
    for (const std::string& call : table.harmless) {
        rows.push_back(At(call, table.success));
    }
    for (const std::string& call : table.retriedAfterSignals) {
        rows.push_back(At(call, table.success).For({EINTR}));
        rows.back().retried = true;
    }
    return rows;
}

}  // namespace qel::test
