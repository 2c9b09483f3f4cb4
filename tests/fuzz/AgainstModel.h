#pragma once

#include <cstdint>

#include "Chain.h"
#include "Ends.h"
#include "Input.h"

namespace qel::fuzz {

/// A chain for a comparison with the model.
inline test::Chain ChainFrom(Input& input) {
    const std::uint64_t size = input.RingSize();
    const unsigned nodes = 1 + input.Choice(5);
    return {size, nodes, test::FrameLimit(input.Choice(10)), input.Flag()};
}

/// Runs a comparison; what differs ends the process.
template <typename Comparison>
void Compare(const Comparison& comparison) {
    try {
        comparison();
    } catch (const rc::detail::CaseResult& difference) {
        Fail(difference.description);
    }
}

}  // namespace qel::fuzz
