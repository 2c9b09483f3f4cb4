#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Traffic.h"

namespace qel::test {

/// What the node that is to die does, and how the ring stands when it begins.
struct Operation {
    enum class Role { Writer, Middle, Sink };

    std::string name;  ///< as the table has it
    Role role;
    std::uint64_t filler = 0;   ///< bytes up to the end of the data area, if it is to wrap
    std::uint64_t written = 0;  ///< payload of the packet that it writes, if it does
    int held = 0;               ///< packets that it has read before
    bool fresh = false;         ///< the segment is as the system makes it
    bool opens = false;         ///< opening is the operation
    std::function<void(SharedPacketBufferIF&, const std::vector<Packet>& held)> act = {};
};

/// All that the table tells of, in its order. A name may come several times: these are the same
/// steps.
std::vector<Operation> Operations();

/// A ring with packets on it: some wait at every reader and, if `busy`, every reader but `dead`
/// holds one.
struct Standing {
    NodeStates states;
    std::int64_t next;  ///< number of the next packet
};
/// @param offset  where the writer's index is to be
Standing Prepare(const RingImage& ring, std::uint8_t dead, bool busy, std::uint64_t offset);

}  // namespace qel::test
