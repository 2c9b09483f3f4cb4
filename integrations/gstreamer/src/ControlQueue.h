#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "ControlRecord.h"
#include "SharedPacketBufferIF.h"
#include "StreamState.h"

namespace qel {

/// A reading node's side of the control ring: brings its records and the packets together.
///
/// A writer puts a packet's record on the control ring before it puts the packet on the ring, and
/// events between the records of the packets that they stand between. So the record of a packet at
/// hand is there, and the events ahead of it are due. Records can be missing (the control ring was
/// full, a node of the chain takes no part) or too many (the writer had no room for the packet):
/// packets without a record are delivered with what their header says, records without a packet
/// are passed over.
///
/// Thread use: one thread at a time.
class ControlQueue {
public:
    /// What goes with a packet.
    struct Match {
        std::vector<ControlRecord> events;   ///< due ahead of the packet, in order
        std::optional<ControlHead> details;  ///< none if the packet has no record
    };

    /// @param ring  the control ring; must outlive this object
    explicit ControlQueue(SharedPacketBufferIF& ring) : ring_(ring) {}

    /// Takes the record of a packet just read from the ring.
    Match Take(const Packet& packet);

    /// Looks for the state whose caps have `serial` among the records that wait.
    [[nodiscard]] std::optional<StreamState> FindState(std::uint32_t serial);

    /// True if a writer has ever put records beside its packets.
    [[nodiscard]] bool IsInUse();

    /// Takes all records that have been read and wait for their packets.
    [[nodiscard]] std::deque<ControlRecord> TakeRecords() { return std::exchange(records_, {}); }

    /// Puts records ahead of those that wait: a former reader's at the same node.
    void PutBack(std::deque<ControlRecord> records);

    /// Takes the next event, if it stands behind all packets: to be asked when none waits.
    std::optional<ControlRecord> TakeEvent();

private:
    /// More than a control ring holds while nothing is wrong.
    static constexpr std::size_t kMostRecords = 65536;

    bool Pull();
    bool HasRecords();

    SharedPacketBufferIF& ring_;
    std::deque<ControlRecord> records_;
};

}  // namespace qel
