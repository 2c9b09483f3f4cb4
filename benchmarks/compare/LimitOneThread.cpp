// What the ring's operations cost by themselves, without another core.

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "BareRing.h"
#include "Clock.h"
#include "Limits.h"
#include "Message.h"
#include "Processes.h"
#include "QevRing.h"
#include "RingBuffers.h"

namespace qel::bench {
namespace {

constexpr std::uint64_t kBatch = 1000;
constexpr std::uint64_t kWarmUpLaps = 2;

void Require(bool holds, const char* what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

/// A chain of nodes. As `InlineRing`, it passes a message on and gives the first byte of what came
/// out at its end.
class LibraryRing {
public:
    LibraryRing(std::uint64_t size, unsigned nodes) : name_(UniqueName(0)) {
        Cell cell;
        cell.ring = size;
        writer_ = OpenNode(name_, cell, 0, false);
        for (unsigned node = 1; node < nodes; ++node) {
            readers_.push_back(OpenNode(name_, cell, node, node + 1 == nodes));
        }
    }
    ~LibraryRing() { RemoveRing(name_); }
    LibraryRing(const LibraryRing&) = delete;
    LibraryRing& operator=(const LibraryRing&) = delete;

    unsigned char Pass(Source& source, Stamp stamp) const {
        Require(writer_->WritePacket(PacketOf(source, stamp)) == SMStatusCode::SUCCESS,
                "the ring does not take a packet");
        unsigned char first = 0;
        for (const auto& reader : readers_) {
            first = Read(*reader);
        }
        return first;
    }

private:
    static unsigned char Read(SharedPacketBufferIF& reader) {
        while (true) {
            const ReadNextPacketResult read = reader.ReadNextPacket();
            Require(read.status == SMStatusCode::SUCCESS, "the ring does not give a packet");
            const bool isFiller = read.packet.header.ignoreData;
            const unsigned char first = isFiller ? 0 : read.packet.data[0];
            (void)reader.ReleasePacket(read.packet);
            if (!isFiller) {
                return first;
            }
        }
    }

    std::string name_;
    std::unique_ptr<SharedPacketBufferIF> writer_;
    std::vector<std::unique_ptr<SharedPacketBufferIF>> readers_;
};

class InlineRing {
public:
    explicit InlineRing(std::uint64_t size)
        : bytes_(sizeof(ControlBlock) + size),
          control_(*new (bytes_.Data()) ControlBlock()),
          ring_(control_, bytes_.Data() + sizeof(ControlBlock), size) {
        control_.avail[0].store(size);
    }

    unsigned char Pass(Source& source, Stamp stamp) {
        PacketHeader header;
        header.pts = static_cast<std::int64_t>(stamp.number);
        Require(ring_.Write(header, source.Stamped(stamp), source.Size()),
                "the ring does not take a packet");
        while (true) {
            const unsigned char* payload = ring_.Read(header);
            if (payload == nullptr) {
                throw std::runtime_error("the ring does not give a packet");
            }
            const unsigned char first = header.ignoreData ? 0 : payload[0];
            ring_.Release(header.length);
            if (!header.ignoreData) {
                return first;
            }
        }
    }

private:
    SharedBytes bytes_;
    ControlBlock& control_;
    BareRing ring_;
};

template <typename Ring>
void PassMany(Ring& ring, Source& source, std::uint64_t& next, std::uint64_t count) {
    for (std::uint64_t done = 0; done < count; ++done, ++next) {
        Require(ring.Pass(source, {next, Part::Middle}) == (next & 0xff),
                "a packet came otherwise than it was written");
    }
}

template <typename Ring>
nlohmann::json Measure(Ring& ring, std::size_t size, std::size_t bytes, double seconds,
                       std::uint64_t packets) {
    Source source(size);
    std::uint64_t next = 0;
    if (packets == 0) {
        PassMany(ring, source, next, kWarmUpLaps * bytes / (size + kPacketHeaderSize));
    }
    const std::uint64_t warmUp = next;
    const std::int64_t start = Now();
    std::int64_t elapsed = 0;
    do {
        PassMany(ring, source, next, packets == 0 ? kBatch : packets);
        elapsed = Now() - start;
    } while (packets == 0 && static_cast<double>(elapsed) < seconds * 1e9);
    const std::uint64_t count = next - warmUp;
    return {{"messages", count}, {"ns", static_cast<double>(elapsed) / static_cast<double>(count)}};
}

}  // namespace

nlohmann::json MeasureOneThread(std::size_t size, std::size_t ring, RingBy how, unsigned nodes,
                                double seconds, std::uint64_t packets) {
    PinToCore(0);
    if (how == RingBy::Library) {
        LibraryRing library(ring, nodes);
        return Measure(library, size, ring, seconds, packets);
    }
    InlineRing bare(ring);
    return Measure(bare, size, ring, seconds, packets);
}

}  // namespace qel::bench
