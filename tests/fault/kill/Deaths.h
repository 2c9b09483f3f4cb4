#pragma once

#include <string>
#include <vector>

#include "Operations.h"

namespace qel::test {

/// A row of the table of deaths.
struct Row {
    std::string operation;
    std::string step;  ///< after which the node died
    std::string left;
    std::string sight;
    std::string see;
    std::string putRight;
};

/// Kills nodes of rings of all kinds in all operations after every access, examines what is left,
/// lets the others go on, and puts it right. What is wrong with any of this fails the test that is
/// running.
std::vector<Row> MeasureDeaths();

}  // namespace qel::test
