#pragma once

#include <cstdint>

#include "SharedBufferIF.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// Hands on what the previous process of a reading node had read and not released when it ended,
/// and what would be lost to the ring otherwise: to the next node or, from the sink, back to the
/// writer. Every packet goes on unseen and by a release of its own, so a packet limit counts right.
///
/// To be called once, before the first read, by a process that is alone at this node, see
/// NodeClaim. The neighbour that gets the packets may be at work meanwhile, its counters are looked
/// at several times over some milliseconds.
///
/// A next node that was killed in the few instructions between its two counters' changes is put
/// right by this as well: the record that it was taking is delivered again.
///
/// What cannot be put right from here:
///  - a ring whose bytes were all held by this node looks like one of which it held none, and is
///    left alone;
///  - a packet that this node was killed in taking, in the same few instructions, is no longer
///    counted for it; only the node before it, if that reads, puts that right in its turn;
///  - a writer that is killed in such a moment may leave a ring that nobody can continue;
///  - a neighbour that is merely stopped in such a moment, all the while, looks like a killed one.
///
/// @param ring  opened for `info`
/// @param info  the ring's description; its node is not 0, which writes and reads nothing
/// @return packets handed on, fillers included
/// @throws std::invalid_argument for node 0 and for a description that no ring or this ring can
/// have
/// @throws RingError when the ring's object cannot be looked at
/// @throws std::runtime_error "ring NAME: what node N left behind is damaged" when the counters
///         contradict each other or the packets' headers; then nothing is handed on
std::uint64_t HandOnLeftovers(SharedPacketBufferIF& ring, const SharedBufferIF::BufferInfo& info);

}  // namespace qel
