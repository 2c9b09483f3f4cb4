#include "Traffic.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>

#include "RingRepair.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"
#include "Sys.h"

namespace qel::test {
namespace {

unsigned char ByteOf(std::int64_t number, std::size_t size, std::size_t index) {
    return static_cast<unsigned char>(static_cast<std::size_t>(number) * 37 + size * 11 +
                                      index * 7 + 1);
}

}  // namespace

SMStatusCode WriteNumbered(SharedPacketBufferIF& ring, std::int64_t number, std::size_t size,
                           WriteKind kind) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t index = 0; index < size; ++index) {
        bytes[index] = ByteOf(number, size, index);
    }
    Packet packet;
    packet.header.pts = number;
    packet.header.timestampSec = static_cast<std::uint32_t>(size);
    packet.data = bytes;
    if (kind == WriteKind::Gathered) {
        const std::size_t half = size / 2;
        return ring.WriteMultiDataPacket(packet,
                                         {packet.data.first(half), packet.data.subspan(half)});
    }
    return kind == WriteKind::Critical ? ring.WriteCriticalPacket(packet)
                                       : ring.WritePacket(packet);
}

bool IsIntact(const Packet& packet) {
    if (packet.header.ignoreData) {
        return true;
    }
    if (packet.header.timestampSec != packet.header.length ||
        packet.data.size() != packet.header.length) {
        return false;
    }
    for (std::size_t index = 0; index < packet.data.size(); ++index) {
        if (packet.data[index] != ByteOf(packet.header.pts, packet.data.size(), index)) {
            return false;
        }
    }
    return true;
}

RingImage::RingImage(const Shape& shape)
    : shape_(shape), length_(shape.size + sizeof(ControlBlock)), start_(MAP_FAILED) {
    (void)Open(0);
    const int fd = ::open(name_.Path().c_str(), O_RDWR | O_CLOEXEC);
    start_ = ::mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (start_ == MAP_FAILED) {
        throw std::runtime_error("the ring cannot be mapped");
    }
    file_ = RingFile::Open(name_.Name());
}

RingImage::~RingImage() {
    ::munmap(start_, length_);
}

SharedBufferIF::BufferInfo RingImage::Info(std::uint8_t node) const {
    return {name_.Name(), shape_.size, node, node == shape_.sink, shape_.maxFrames};
}

std::unique_ptr<SharedPacketBufferIF> RingImage::Open(std::uint8_t node,
                                                      std::shared_ptr<SysIF> sys) const {
    if (sys == nullptr) {
        sys = std::make_shared<Sys>();
    }
    return std::make_unique<SharedPacketBuffer>(
        std::make_unique<SharedBuffer>(std::move(sys), Info(node)));
}

RingView RingImage::View() const {
    return {*static_cast<ControlBlock*>(start_)};
}

RingImage::Bytes RingImage::Save() const {
    const auto* const bytes = static_cast<const unsigned char*>(start_);
    return {bytes, bytes + length_};
}

void RingImage::Restore(const Bytes& bytes) const {
    std::memcpy(start_, bytes.data(), length_);
}

void RingImage::Clear() const {
    std::memset(start_, 0, length_);
}

bool PutRight(const RingImage& ring) {
    const RingRepairPlan plan =
        PlanRepair(ring.File(), {ring.Form().sink + 1U, ring.Form().maxFrames});
    if (plan.CanBeDone()) {
        RingHold(ring.File(), RingHold::IfInUse::Refuse).Apply(plan);
    }
    return plan.CanBeDone();
}

void Sights::operator|=(const Sights& other) {
    lost |= other.lost;
    again |= other.again;
    torn |= other.torn;
    late |= other.late;
    readRefused |= other.readRefused;
    releaseRefused |= other.releaseRefused;
    writeNoSpace |= other.writeNoSpace;
    writeInvalid |= other.writeInvalid;
    undefined |= other.undefined;
    outside |= other.outside;
    smaller |= other.smaller;
    countHigh |= other.countHigh;
}

std::vector<std::string> Sights::Words() const {
    std::vector<std::string> all;
    const auto add = [&](bool seen, const char* words) {
        if (seen) {
            all.emplace_back(words);
        }
    };
    add(writeNoSpace, "in the end every write answers `NOT_ENOUGH_SPACE`");
    add(writeInvalid, "in the end every write answers `INVALID_PARAMETER`");
    add(lost, "packets lost");
    add(again, "packets delivered twice");
    add(torn, "torn packets");
    add(late, "packets come late and the last never");
    add(readRefused, "reads answer `INVALID_PARAMETER`");
    add(releaseRefused, "releases answer `INVALID_PARAMETER`");
    add(undefined, "an undefined status");
    add(outside, "memory outside the data area");
    add(smaller, "the ring stays smaller");
    add(countHigh, "the count stays too high");
    return all;
}

namespace {

class Run {
public:
    Run(const RingImage& ring, NodeStates states, const Traffic& traffic)
        : ring_(ring),
          states_(std::move(states)),
          traffic_(traffic),
          next_(traffic.first),
          read_(states_.size()),
          highest_(states_.size()) {
        for (std::uint8_t node = 0; node <= ring.Form().sink; ++node) {
            nodes_.push_back(ring.Open(node));
            highest_[node] = states_[node].lastRead;
        }
    }

    Sights Go() {
        constexpr int kMostRounds = 2000;
        if (traffic_.readersFirst) {
            while (ReadAll()) {
            }
        }
        for (int round = 0; round < kMostRounds; ++round) {
            const bool wrote = Write();
            if (!ReadAll() && !wrote) {
                break;
            }
        }
        Judge();
        return sights_;
    }

private:
    /// @return true if a packet was written
    bool Write() {
        bool wrote = false;
        while (written_ < 3 * ring_.Form().size) {
            const std::size_t size = SizeOf(next_);
            last_ = WriteNumbered(*nodes_[0], next_, size);
            if (last_ != SMStatusCode::SUCCESS) {
                break;
            }
            wrote = true;
            ++next_;
            written_ += kPacketHeaderSize + size;
            if (traffic_.readersFirst) {
                break;  // so that nothing is ever overwritten before it was read
            }
        }
        return wrote;
    }

    [[nodiscard]] std::size_t SizeOf(std::int64_t number) const {
        constexpr std::size_t kUniform = 100;
        return traffic_.mixedSizes ? static_cast<std::size_t>(number * 53 % 211) : kUniform;
    }

    /// @return true if anything was read or released
    bool ReadAll() {
        constexpr int kMostReads = 50;
        bool done = false;
        for (std::uint8_t node = 1; node <= ring_.Form().sink; ++node) {
            for (const Packet& packet : states_[node].held) {
                Release(node, packet);
                done = true;
            }
            states_[node].held.clear();
            for (int count = 0; count < kMostReads; ++count) {
                const auto next = nodes_[node]->ReadNextPacket();
                if (next.status != SMStatusCode::SUCCESS) {
                    sights_.readRefused |= next.status == SMStatusCode::INVALID_PARAMETER;
                    sights_.undefined |= next.status != SMStatusCode::INVALID_PARAMETER &&
                                         next.status != SMStatusCode::DATA_NOT_AVAILABLE;
                    break;
                }
                Note(node, next.packet);
                Release(node, next.packet);
                done = true;
            }
        }
        return done && ++rounds_ < 3000;
    }

    void Release(std::uint8_t node, const Packet& packet) {
        const SMStatusCode status = nodes_[node]->ReleasePacket(packet);
        sights_.releaseRefused |= status == SMStatusCode::INVALID_PARAMETER;
        sights_.undefined |=
            status != SMStatusCode::INVALID_PARAMETER && status != SMStatusCode::SUCCESS;
    }

    void Note(std::uint8_t node, const Packet& packet) {
        const ByteSpan area = nodes_[node]->ReadData(0, ring_.Form().size).data;
        const auto start = packet.data.data() - area.data();
        sights_.outside |=
            !packet.data.empty() &&
            (start < 0 || static_cast<std::uint64_t>(start) + packet.data.size() > area.size());
        const std::int64_t number = packet.header.pts;
        if (!IsIntact(packet)) {
            sights_.torn = true;
        } else if (!packet.header.ignoreData) {
            const bool before = number <= states_[node].lastRead &&
                                !(node == traffic_.taking && number == states_[node].lastRead);
            if (!read_[node].insert(number).second || before) {
                sights_.again = true;
            }
            highest_[node] = std::max(highest_[node], number);
        }
    }

    void Judge() {
        if (written_ < 3 * ring_.Form().size) {
            sights_.writeNoSpace = last_ == SMStatusCode::NOT_ENOUGH_SPACE;
            sights_.writeInvalid = last_ == SMStatusCode::INVALID_PARAMETER;
            sights_.undefined |= !sights_.writeNoSpace && !sights_.writeInvalid;
        }
        bool waiting = false;
        const ControlBlock& control = ring_.View().control;
        std::uint64_t sum = control.avail[0].load();
        for (std::uint8_t node = 1; node <= ring_.Form().sink; ++node) {
            for (std::int64_t number = states_[node].lastRead + 1; number < next_; ++number) {
                const bool missing = read_[node].count(number) == 0 && number != traffic_.uncertain;
                sights_.lost |= missing && number < highest_[node];
                sights_.late |= missing && number > highest_[node];
            }
            waiting |= control.avail.at(node).load() != 0;
            sum += control.avail.at(node).load();
        }
        sights_.smaller = sum != ring_.Form().size;
        sights_.countHigh = !waiting && control.numPackets.load() != 0;
    }

    const RingImage& ring_;
    NodeStates states_;
    Traffic traffic_;
    std::vector<std::unique_ptr<SharedPacketBufferIF>> nodes_;
    std::int64_t next_;
    std::uint64_t written_ = 0;
    int rounds_ = 0;
    SMStatusCode last_ = SMStatusCode::SUCCESS;
    std::vector<std::set<std::int64_t>> read_;  // by node, numbers
    std::vector<std::int64_t> highest_;         // by node
    Sights sights_;
};

}  // namespace

Sights GoOn(const RingImage& ring, NodeStates states, const Traffic& traffic) {
    return Run(ring, std::move(states), traffic).Go();
}

}  // namespace qel::test
