#pragma once

#include <cstdlib>
#include <string>

namespace qel::test {

/// True if QEV_TEST_LONG=1 asks for the long form of the tests.
inline bool IsLongForm() {
    const char* const wish = std::getenv("QEV_TEST_LONG");
    return wish != nullptr && std::string(wish) == "1";
}

}  // namespace qel::test
