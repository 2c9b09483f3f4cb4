#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "DocumentedFaults.h"

namespace qel::test {

/// What can be seen of an operation, as the caller and others see it. Its texts may hold marks,
/// which stand for what only a run knows: {errno}, {strerror}, and those of the scenario.
struct Outcome {
    std::string result;               ///< returned, or thrown with its type
    std::string printed;              ///< on standard output
    std::vector<std::string> logged;  ///< "level category operation: text"
    std::string state;                ///< what an outsider finds once the operation has returned
    std::string left;                 ///< and what once the object is gone
    bool endsProcess = false;         ///< by std::terminate

    [[nodiscard]] Outcome Prints(const std::string& text) const;
    /// A record of the ring; its line is fixed.
    [[nodiscard]] Outcome LogsOfRing(const std::string& operation, int line,
                                     const std::string& text) const;
    /// A record of the lock file; level 3 for what is thrown, 4 for what is not.
    [[nodiscard]] Outcome LogsOfLockFile(int level, const std::string& operation,
                                         const std::string& text) const;
    [[nodiscard]] Outcome State(const std::string& text) const;
    [[nodiscard]] Outcome Left(const std::string& text) const;
};

[[nodiscard]] Outcome Returns(const std::string& text);
[[nodiscard]] Outcome Throws(const std::string& text,
                             const std::string& type = "std::runtime_error");
[[nodiscard]] Outcome EndsProcess();

/// All of it as one text; `marks` are replaced by what they stand for.
[[nodiscard]] std::string TextOf(const Outcome& outcome,
                                 const std::map<std::string, std::string>& marks);

/// Where the library makes a call: through its interface, which is replaced, or directly, which is
/// interposed.
enum class Route { Interface, Direct };

/// What comes of the refusal of one call.
struct Row {
    Outcome once;                 ///< when it is refused this once
    std::optional<Outcome> ever;  ///< when it and the same operation are refused from then on
    std::string call;             ///< as CallFaults records it, with marks
    std::vector<int> errors;      ///< of these only; if empty, of all that have no row of their own
    int nth = 0;                  ///< of the calls that look the same; 0 for each of them
    std::optional<Route> route;   ///< on this one only
    bool retried = false;         ///< the call is made again until it is not refused

    [[nodiscard]] Row Ever(const Outcome& outcome) const;
    [[nodiscard]] Row For(const std::vector<int>& only) const;
    [[nodiscard]] Row Nth(int number) const;
    [[nodiscard]] Row On(Route only) const;
};

[[nodiscard]] Row At(const std::string& call, const Outcome& outcome);

/// What is known of one scenario.
struct Table {
    Outcome success;  ///< when nothing is refused
    std::vector<Row> rows;
    std::vector<std::string> retriedAfterSignals;  ///< calls that go on after an interruption
    std::vector<std::string> harmless;             ///< calls whose refusal changes nothing
    /// A failure ends the object, and what is refused on the way out as well changes no result.
    bool givesUp = false;
};

/// The rows of a table, those of the calls in its two lists included.
[[nodiscard]] std::vector<Row> AllRows(const Table& table);

}  // namespace qel::test
