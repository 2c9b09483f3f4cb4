#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include "ControlQueue.h"
#include "PacketReader.h"
#include "StreamNode.h"

namespace qel {

/// A reading node whose packets may be given back by any thread, in any order.
///
/// Those who hold packets keep a shared pointer to it, so that the mapping and the claim on the
/// node last until the last packet has been handed on.
///
/// Thread use: `HandOn`, `Wake` and the figures: any thread. All else: one thread at a time.
///
/// Invariant: the ring is used under `mutex_` only.
class StreamReader {
public:
    /// Opens the node, and hands on what a killed predecessor had read.
    /// @throws as StreamNode
    explicit StreamReader(const StreamOptions& options)
        : options_(options),
          node_(options),
          recovered_(node_.Recover(options)),
          packets_(node_.Ring()),
          control_(node_.Control()) {}

    /// Takes the next packet or end mark; nothing if none waits. Once a packet could not be given
    /// back, because the counters are inconsistent, the ring is broken.
    std::optional<ReceivedPacket> TryNext();

    /// Gives a packet back: it goes on to the next node when all older ones have been given back.
    /// @return false if the ring's counters are inconsistent
    bool HandOn(InOrderRelease::Ticket ticket);

    /// Waits for something to read, see StreamNode::Wait.
    void Wait() { node_.Wait(); }
    void Wake() const { node_.Wake(); }

    /// The record that goes with a packet, and the events ahead of it.
    ControlQueue::Match TakeControl(const Packet& packet) { return control_.Take(packet); }

    /// The state that a packet was written in, from records that wait behind it.
    std::optional<StreamState> FindState(std::uint32_t serial) {
        return control_.FindState(serial);
    }

    /// True if a writer has ever made records for its packets.
    [[nodiscard]] bool HasRecords() { return control_.IsInUse(); }

    /// What a reader has to pass on to its successor in the same process.
    [[nodiscard]] std::deque<ControlRecord> TakeRecords() { return control_.TakeRecords(); }
    void PutBack(std::deque<ControlRecord> records) { control_.PutBack(std::move(records)); }

    /// The next event behind all packets.
    std::optional<ControlRecord> TakeEvent();

    [[nodiscard]] const StreamOptions& Options() const noexcept { return options_; }
    [[nodiscard]] InOrderRelease::Outstanding GetOutstanding() const {
        return packets_.GetOutstanding();
    }
    [[nodiscard]] std::uint64_t Fillers() const;
    [[nodiscard]] std::uint64_t Recovered() const noexcept { return recovered_; }

private:
    StreamOptions options_;
    StreamNode node_;
    std::uint64_t recovered_;
    mutable std::mutex mutex_;
    PacketReader packets_;
    bool isBroken_ = false;  // guarded by mutex_
    ControlQueue control_;
};

}  // namespace qel
