#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "CommandLine.h"
#include "Files.h"
#include "IdleStrategy.h"
#include "NodeClaim.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// What one stage has done so far, for others to watch. Written by the stage alone; lies in memory
/// that processes share when the stages are processes of one pipeline.
struct alignas(64) StageCounters {
    std::atomic<std::uint64_t> packets{0};      ///< of content: fillers and end marks do not count
    std::atomic<std::uint64_t> bytes{0};        ///< of their payloads
    std::atomic<std::uint64_t> fillers{0};      ///< met by a reading stage
    std::atomic<std::uint64_t> checksum{0};     ///< XXH3 of all payloads; set at the end
    std::atomic<std::uint64_t> nanoseconds{0};  ///< from the first packet to the end
    /// Why the stage failed. Set before its process ends, read after.
    std::array<char, 512> error{};
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "shared between processes");

/// How a stage ended when it did not fail.
enum class StageEnd {
    EndOfStream,  ///< the end mark was sent or passed on
    Stopped,      ///< it was asked to stop before that
};

/// When a stage is to end before its time.
struct StageStops {
    StopPredicate cutting;  ///< the producer takes no more input and sends the end mark
    StopPredicate waiting;  ///< stop at once, between two packets
};

/// A ring that is open for one stage, which holds its node as long as this lives.
class StageRing {
public:
    StageRing(std::unique_ptr<SharedPacketBufferIF> buffer,
              std::unique_ptr<const NodeClaim> claim) noexcept
        : claim_(std::move(claim)), buffer_(std::move(buffer)) {}

    SharedPacketBufferIF& operator*() const noexcept { return *buffer_; }

private:
    std::unique_ptr<const NodeClaim> claim_;  // given back when the buffer has gone
    std::unique_ptr<SharedPacketBufferIF> buffer_;
};

/// Opens the ring for one stage, claims its node and makes its pages present.
/// @throws UsageError when the ring that is there is another than described
/// @throws NodeTaken when another process is this node
[[nodiscard]] StageRing OpenStage(const RingOptions& ring, std::uint8_t node, bool sink);

/// What node 0 sends next; nothing at the end. The data need be there until the next call only.
using PacketSource = std::function<std::optional<Packet>()>;

/// Node 0: writes what `source` gives, end marks too; then the end mark if it `sendsEnd`.
/// @throws std::runtime_error when the ring fails
StageEnd RunSource(SharedPacketBufferIF& buffer, const RingOptions& ring,
                   const PacketSource& source, bool sendsEnd, const StageStops& stops,
                   StageCounters& counters);

/// Node 0: cuts `input` into packets of `packetSize` bytes with pts 0, 1, 2 and so on, and the end
/// mark behind them.
/// @throws std::runtime_error when the input or the ring fails
StageEnd RunProducer(SharedPacketBufferIF& buffer, const RingOptions& ring, const InputFile& input,
                     std::uint64_t packetSize, const StageStops& stops, StageCounters& counters);

/// Any other node: reads each packet in place and hands it on; writes it to `output` if there is
/// one. What it holds goes back to the ring however it ends.
/// @throws std::runtime_error when the output or the ring fails
StageEnd RunReader(SharedPacketBufferIF& buffer, const RingOptions& ring, const OutputFile* output,
                   const StageStops& stops, StageCounters& counters);

}  // namespace qel
