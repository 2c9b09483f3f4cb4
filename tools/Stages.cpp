#include "Stages.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <chrono>
#include <stdexcept>
#include <vector>

#include "EndOfStream.h"
#include "InPlaceWriter.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "PacketWriter.h"
#include "PopulateRing.h"

namespace qel {
namespace {

/// Counts packets as they pass.
class Tally {
public:
    explicit Tally(StageCounters& counters)
        : counters_(counters), state_(XXH3_createState(), XXH3_freeState) {
        if (!state_ || XXH3_64bits_reset(state_.get()) != XXH_OK) {
            throw std::bad_alloc();
        }
    }
    ~Tally() {
        counters_.checksum.store(XXH3_64bits_digest(state_.get()));
        StoreDuration();
    }
    Tally(const Tally&) = delete;
    Tally& operator=(const Tally&) = delete;

    /// Takes a payload into the checksum, while its bytes are there.
    void See(const ByteSpan& data) {
        if (data.empty()) {
            return;
        }
        if (!start_) {
            start_ = Clock::now();
        }
        (void)XXH3_64bits_update(state_.get(), data.data(), data.size());
    }

    /// Counts a packet of `size` bytes as handed on.
    void HandedOn(std::size_t size) {
        counters_.packets.fetch_add(1, std::memory_order_relaxed);
        counters_.bytes.fetch_add(size, std::memory_order_relaxed);
    }

private:
    using Clock = std::chrono::steady_clock;

    void StoreDuration() {
        if (start_) {
            const std::chrono::nanoseconds duration = Clock::now() - *start_;
            counters_.nanoseconds.store(static_cast<std::uint64_t>(duration.count()));
        }
    }

    StageCounters& counters_;
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state_;
    std::optional<Clock::time_point> start_;
};

[[noreturn]] void FailInconsistent(const std::string& name) {
    throw std::runtime_error(fmt::format(
        "ring {} is inconsistent: another process uses the same node, or has damaged it", name));
}

/// True if the packet was written, false if the stage is to stop.
bool IsWritten(WriteOutcome outcome, const std::string& ringName) {
    switch (outcome) {
        case WriteOutcome::Written:
            return true;
        case WriteOutcome::Stopped:
            return false;
        case WriteOutcome::NeverFits:
            throw std::runtime_error(fmt::format("ring {} is too small for a packet", ringName));
        case WriteOutcome::Broken:
            break;
    }
    FailInconsistent(ringName);
}

StageEnd SendEnd(PacketWriter& writer, const RingOptions& ring) {
    const bool ended = IsWritten(writer.WriteCritical(MakeEndOfStream()), ring.name);
    return ended ? StageEnd::EndOfStream : StageEnd::Stopped;
}

}  // namespace

StageRing OpenStage(const RingOptions& ring, std::uint8_t node, bool sink) {
    std::unique_ptr<SharedPacketBufferIF> buffer;
    try {
        buffer = OpenRing(ring.Info(node, sink));
    } catch (const std::invalid_argument& reason) {
        throw UsageError(reason.what());
    }
    const std::uint32_t limit = buffer->GetCurrentCapacity().maxPackets;
    const std::uint32_t wanted = ring.maxFrames == 0 ? 0 : ring.maxFrames + 1;
    if (ring.maxFramesOption->count() != 0 && limit != wanted) {
        throw UsageError(fmt::format("ring {} exists with another packet limit: {} instead of {}",
                                     ring.name, limit, wanted));
    }
    auto claim = std::make_unique<const NodeClaim>(ring.name, node);
    PopulateRing(*buffer, ring.size);
    return {std::move(buffer), std::move(claim)};
}

StageEnd RunSource(SharedPacketBufferIF& buffer, const RingOptions& ring,
                   const PacketSource& source, bool sendsEnd, const StageStops& stops,
                   StageCounters& counters) {
    Tally tally(counters);
    PacketWriter writer(buffer, ring.size, ring.wait, stops.waiting);
    while (!stops.cutting()) {
        const std::optional<Packet> packet = source();
        if (!packet) {
            break;
        }
        const bool isEnd = IsEndOfStream(*packet);
        tally.See(packet->data);
        if (!IsWritten(isEnd ? writer.WriteCritical(*packet) : writer.Write(*packet), ring.name)) {
            return StageEnd::Stopped;
        }
        if (!isEnd) {
            tally.HandedOn(packet->data.size());
        }
    }
    if (!sendsEnd) {
        return StageEnd::Stopped;
    }
    return SendEnd(writer, ring);
}

StageEnd RunProducer(SharedPacketBufferIF& buffer, const RingOptions& ring, const InputFile& input,
                     std::uint64_t packetSize, const StageStops& stops, StageCounters& counters) {
    Tally tally(counters);
    PacketWriter writer(buffer, ring.size, ring.wait, stops.waiting);
    InPlaceWriter inPlace(buffer);
    PacketHeader header;
    for (; !stops.cutting(); header.pts = header.pts + 1) {
        ByteSpan room;
        if (!IsWritten(writer.Reserve(inPlace, packetSize, room), ring.name)) {
            return StageEnd::Stopped;
        }
        const std::size_t count = input.Read(room, stops.cutting);
        if (count == 0) {
            inPlace.GiveUp();
            break;
        }
        tally.See(room.first(count));  // as long as it is ours
        if (inPlace.Commit(header, count) != SMStatusCode::SUCCESS) {
            FailInconsistent(ring.name);
        }
        tally.HandedOn(count);
    }
    return SendEnd(writer, ring);
}

StageEnd RunReader(SharedPacketBufferIF& buffer, const RingOptions& ring, const OutputFile* output,
                   const StageStops& stops, StageCounters& counters) {
    Tally tally(counters);
    PacketReader reader(buffer, ring.wait, stops.waiting);
    while (true) {
        const ReceivedPacket received = reader.Next();
        counters.fillers.store(reader.Fillers(), std::memory_order_relaxed);
        if (received.outcome == ReadOutcome::Stopped) {
            return StageEnd::Stopped;
        }
        if (received.outcome == ReadOutcome::Broken) {
            FailInconsistent(ring.name);
        }
        const ByteSpan& data = received.packet.data;
        bool used = true;
        try {
            tally.See(data);
            used = output == nullptr || output->Write(data, stops.waiting);
        } catch (...) {
            (void)reader.Release(received.ticket);  // or the ring would stay smaller for ever
            throw;
        }
        if (reader.Release(received.ticket) != SMStatusCode::SUCCESS) {
            FailInconsistent(ring.name);
        }
        if (!used) {
            return StageEnd::Stopped;
        }
        if (received.outcome == ReadOutcome::EndOfStream) {
            return StageEnd::EndOfStream;
        }
        tally.HandedOn(data.size());
    }
}

}  // namespace qel
