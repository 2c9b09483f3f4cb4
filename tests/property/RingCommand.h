#pragma once

#include <rapidcheck.h>

#include <ostream>
#include <vector>

namespace qel::test {

/// A random operation on a ring. The numbers are choices; what they come to depends on the state
/// that the ring is in, so that full rings, exact ends and the like are met often.
struct RingCommand {
    enum class Kind {
        WritePayload,
        WriteMultiData,
        WriteSkip,
        FillToEnd,
        ReadHeader,
        ReadPayload,
        ReadData,
        PassOn,     ///< one node takes some bytes and hands them on
        PassAllOn,  ///< every node takes all it has and hands it on
        Release,
        Print,
        PrintDisabled,
        Capacity,
        Reopen,
        OpenLarger,
        Forge,
    };

    Kind kind;
    unsigned node;
    unsigned header;
    unsigned shape;
    unsigned amount;
    bool critical;
};

std::ostream& operator<<(std::ostream& stream, const RingCommand& command);
rc::Gen<std::vector<RingCommand>> ArbitraryRingCommands();

}  // namespace qel::test
