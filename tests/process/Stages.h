#pragma once

#include <atomic>
#include <cstdint>

#include "NumberedPackets.h"
#include "SharedPacketBufferIF.h"

namespace qel::test {

/// What a stage met on its way.
struct StageCounts {
    std::uint64_t packets = 0;
    std::uint64_t fillers = 0;
    std::uint64_t waits = 0;  ///< times that there was nothing to read, or no room
};

/// Tells the stages of one process that one of them has failed, so that no other waits for it.
using Stop = std::atomic<bool>;

/// Writes packets 0 to `count` - 1, or fewer if stopped.
/// @throws std::runtime_error  at a status that a sound ring does not give
StageCounts Produce(SharedPacketBufferIF& buffer, NumberedPackets& packets, std::uint64_t count,
                    const Stop& stop);

/// Reads packets 0 to `count` - 1, or fewer if stopped, in place, checks each, and hands it on.
/// While more are waiting it holds up to `held` of them, and checks them once more before it lets
/// go.
/// @param releaseAtOnce  hands the held ones on in one step
/// @throws std::runtime_error  at a wrong packet or status
StageCounts PassOn(SharedPacketBufferIF& buffer, NumberedPackets& packets, std::uint64_t count,
                   std::size_t held, bool releaseAtOnce, const Stop& stop);

}  // namespace qel::test
