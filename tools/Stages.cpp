#include "Stages.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <chrono>
#include <stdexcept>
#include <vector>

#include "EndOfStream.h"
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

}  // namespace

std::unique_ptr<SharedPacketBufferIF> OpenStage(const RingOptions& ring, std::uint8_t node,
                                                bool sink) {
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
    PopulateRing(*buffer, ring.size);
    return buffer;
}

StageEnd RunProducer(SharedPacketBufferIF& buffer, const RingOptions& ring, const InputFile& input,
                     std::uint64_t packetSize, const StageStops& stops, StageCounters& counters) {
    Tally tally(counters);
    PacketWriter writer(buffer, ring.size, ring.wait, stops.waiting);
    std::vector<unsigned char> payload(packetSize);
    for (std::int64_t pts = 0; !stops.cutting(); ++pts) {
        const std::size_t count = input.Read({payload.data(), payload.size()}, stops.cutting);
        if (count == 0) {
            break;
        }
        Packet packet;
        packet.header.pts = pts;
        packet.data = {payload.data(), count};
        tally.See(packet.data);
        if (!IsWritten(writer.Write(packet), ring.name)) {
            return StageEnd::Stopped;
        }
        tally.HandedOn(count);
    }
    const bool ended = IsWritten(writer.WriteCritical(MakeEndOfStream()), ring.name);
    return ended ? StageEnd::EndOfStream : StageEnd::Stopped;
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
