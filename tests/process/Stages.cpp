#include "Stages.h"

#include <sched.h>

#include <deque>
#include <sstream>
#include <stdexcept>
#include <string>

namespace qel::test {
namespace {

void Require(SMStatusCode actual, const std::string& step) {
    if (actual != SMStatusCode::SUCCESS) {
        std::ostringstream text;
        text << step << " answered " << actual;
        throw std::runtime_error(text.str());
    }
}

/// A packet that has been read and not yet released.
struct Held {
    Packet packet;
    std::uint64_t number;
};

class Passing {
public:
    Passing(SharedPacketBufferIF& buffer, NumberedPackets& packets, bool releaseAtOnce)
        : buffer_(buffer), packets_(packets), releaseAtOnce_(releaseAtOnce) {}

    /// False if nothing waits.
    bool Take() {
        const auto read = buffer_.ReadNextPacket();
        if (read.status == SMStatusCode::DATA_NOT_AVAILABLE) {
            ++counts_.waits;
            return false;
        }
        Require(read.status, "ReadNextPacket");
        if (read.packet.header.ignoreData) {
            ++counts_.fillers;
        } else {
            Check({read.packet, counts_.packets});
            ++counts_.packets;
        }
        held_.push_back({read.packet, counts_.packets - 1});
        return true;
    }

    void LetGo() {
        std::vector<Packet> together;
        for (const Held& held : held_) {
            if (!held.packet.header.ignoreData) {
                Check(held);
            }
            if (releaseAtOnce_) {
                together.push_back(held.packet);
            } else {
                Require(buffer_.ReleasePacket(held.packet), "ReleasePacket");
            }
        }
        if (!together.empty()) {
            Require(buffer_.ReleasePackets(together), "ReleasePackets");
        }
        held_.clear();
    }

    [[nodiscard]] std::size_t HeldCount() const { return held_.size(); }
    [[nodiscard]] const StageCounts& Counts() const { return counts_; }

private:
    void Check(const Held& held) {
        if (const std::string fault = packets_.Fault(held.packet, held.number); !fault.empty()) {
            throw std::runtime_error(fault);
        }
    }

    SharedPacketBufferIF& buffer_;
    NumberedPackets& packets_;
    bool releaseAtOnce_;
    std::deque<Held> held_;
    StageCounts counts_;
};

}  // namespace

StageCounts Produce(SharedPacketBufferIF& buffer, NumberedPackets& packets, std::uint64_t count,
                    const Stop& stop) {
    StageCounts counts;
    while (counts.packets < count && !stop) {
        const SMStatusCode status = packets.Write(buffer, counts.packets);
        if (status == SMStatusCode::SUCCESS) {
            ++counts.packets;
            continue;
        }
        // A critical packet may find room for itself but not for the filler ahead of it.
        const bool fillerWaits =
            counts.packets % 16 == 3 && status == SMStatusCode::INVALID_PARAMETER;
        if (status != SMStatusCode::NOT_ENOUGH_SPACE && !fillerWaits) {
            Require(status, "writing packet " + std::to_string(counts.packets));
        }
        ++counts.waits;
        ::sched_yield();
    }
    return counts;
}

StageCounts PassOn(SharedPacketBufferIF& buffer, NumberedPackets& packets, std::uint64_t count,
                   std::size_t held, bool releaseAtOnce, const Stop& stop) {
    Passing passing(buffer, packets, releaseAtOnce);
    while (passing.Counts().packets < count && !stop) {
        const bool taken = passing.Take();
        if (!taken || passing.HeldCount() > held) {
            passing.LetGo();
        }
        if (!taken) {
            ::sched_yield();
        }
    }
    passing.LetGo();
    return passing.Counts();
}

}  // namespace qel::test
