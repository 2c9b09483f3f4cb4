#pragma once

#include <string>

namespace qel::test {

/// What a death leaves, as the documentation says it.
struct Outcome {
    std::string left;
    std::string next;   ///< what the next process sees
    std::string see;    ///< how to see it from outside
    std::string right;  ///< how to put it right

    bool operator==(const Outcome& other) const {
        return left == other.left && next == other.next && see == other.see && right == other.right;
    }
};

}  // namespace qel::test
