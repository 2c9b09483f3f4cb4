#pragma once

#include <rapidcheck.h>

#include <ostream>
#include <vector>

namespace qel::test {

/// A random operation on a packet buffer. As with RingCommand, the numbers are choices.
struct PacketCommand {
    enum class Kind {
        Write,
        WriteMultiData,
        ReadNext,
        Release,         ///< the packet that the node has held longest
        ReleaseSeveral,  ///< the packets that the node has held longest, in one step
        ReleaseWrong,    ///< a packet that the node never read
        PassAllOn,       ///< every node reads all that waits and releases it, one by one
        ReadData,
        Print,
        Capacity,
        Reopen,
        WriteInPlace,  ///< reserves, fills, and hands on all of it or less, or gives it up
    };

    Kind kind;
    unsigned node;
    unsigned shape;
    unsigned amount;
    bool critical;
};

std::ostream& operator<<(std::ostream& stream, const PacketCommand& command);
rc::Gen<std::vector<PacketCommand>> ArbitraryPacketCommands();

}  // namespace qel::test
