#include "SoakPackets.h"

#include <cstring>

namespace qel::test {
namespace {

constexpr std::uint64_t kKinds = 16;
constexpr std::uint64_t kCritical = 3;
constexpr std::uint64_t kGathered = 7;

std::uint64_t Mix(std::uint64_t number) {
    number += 0x9E3779B97F4A7C15U;
    number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
    number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
    return number ^ (number >> 31U);
}

}  // namespace

SoakPackets::SoakPackets(std::uint64_t ringSize) : largest_(ringSize / 3), pool_(2 * largest_ + 8) {
    for (std::uint64_t i = 0; i + sizeof(i) <= pool_.size(); i += sizeof(i)) {
        const std::uint64_t word = Mix(i);
        std::memcpy(&pool_[i], &word, sizeof(word));
    }
}

std::uint64_t SoakPackets::SizeOf(std::uint64_t draw) const {
    const std::uint64_t size = draw >> 8U;
    switch (draw % 64) {
        case 0:
            return largest_ - size % (largest_ / 2);
        case 1:
            return largest_;
        case 2:
        case 3:
        case 4:
        case 5:
            return 0;
        default:
            return size % (draw % 64 < 14 ? 8192 : draw % 64 < 40 ? 512 : 32);
    }
}

ByteSpan SoakPackets::Payload(std::uint64_t number) const {
    const std::uint64_t size = SizeOf(Mix(number));
    // The payload is only compared and copied, never written to.
    return {const_cast<unsigned char*>(&pool_[Mix(~number) % largest_]), size};
}

SMStatusCode SoakPackets::Write(SharedPacketBufferIF& buffer, std::uint64_t number,
                                bool isLast) const {
    const ByteSpan payload = Payload(number);
    const PacketHeader header{~std::uint64_t{0},
                              false,
                              static_cast<std::int64_t>(number),
                              number % 3 == 0,
                              static_cast<std::uint32_t>(number),
                              isLast ? kLast : 0};
    switch (number % kKinds) {
        case kCritical:
            return buffer.WriteCriticalPacket({header, payload});
        case kGathered: {
            const std::size_t cut = payload.size() / 3;
            return buffer.WriteMultiDataPacket({header, {}},
                                               {payload.first(cut), {}, payload.subspan(cut)});
        }
        default:
            return buffer.WritePacket({header, payload});
    }
}

bool SoakPackets::IsForNow(SMStatusCode status, std::uint64_t number) {
    // A critical packet may find room for itself but not for the filler ahead of it.
    return status == SMStatusCode::NOT_ENOUGH_SPACE ||
           (status == SMStatusCode::INVALID_PARAMETER && number % kKinds == kCritical);
}

std::string SoakPackets::Fault(const Packet& packet, std::uint64_t number) const {
    const PacketHeader& header = packet.header;
    const ByteSpan expected = Payload(number);
    const char* wrong = nullptr;
    if (header.pts != static_cast<std::int64_t>(number)) {
        wrong = "pts";
    } else if (header.length != packet.data.size() || packet.data.size() != expected.size()) {
        wrong = "length";
    } else if (header.ignoreData || header.key != (number % 3 == 0) ||
               header.timestampSec != static_cast<std::uint32_t>(number) ||
               header.timestampUsec > kLast) {
        wrong = "header";
    } else if (std::memcmp(packet.data.data(), expected.data(), expected.size()) != 0) {
        wrong = "payload";
    }
    return wrong == nullptr
               ? std::string()
               : "packet " + std::to_string(number) + ": wrong " + wrong + ", pts " +
                     std::to_string(header.pts) + ", length " + std::to_string(header.length);
}

}  // namespace qel::test
