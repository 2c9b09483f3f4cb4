#include "NumberedPackets.h"

#include <cstring>

// Compiled here rather than linked, so that a race detector sees it read.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace qel::test {
namespace {

std::uint64_t Mix(std::uint64_t number) {
    number += 0x9E3779B97F4A7C15U;
    number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
    number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
    return number ^ (number >> 31U);
}

std::uint32_t Checksum(const ByteSpan& bytes) {
    return static_cast<std::uint32_t>(XXH3_64bits(bytes.data(), bytes.size()));
}

}  // namespace

NumberedPackets::NumberedPackets(std::size_t largestPayload)
    : largestPayload_(largestPayload), bytes_(largestPayload + sizeof(std::uint64_t)) {}

ByteSpan NumberedPackets::Payload(std::uint64_t number) {
    std::uint64_t word = Mix(number);
    const std::size_t size = word % (largestPayload_ + 1);
    for (std::size_t i = 0; i < size; i += sizeof(word)) {
        word = word * 6364136223846793005U + 1442695040888963407U;
        std::memcpy(&bytes_[i], &word, sizeof(word));
    }
    return {bytes_.data(), size};
}

SMStatusCode NumberedPackets::Write(SharedPacketBufferIF& buffer, std::uint64_t number) {
    const ByteSpan payload = Payload(number);
    const PacketHeader header{~std::uint64_t{0},
                              false,
                              static_cast<std::int64_t>(number),
                              number % 3 == 0,
                              static_cast<std::uint32_t>(number),
                              Checksum(payload)};
    switch (number % 16) {
        case 3:
            return buffer.WriteCriticalPacket({header, payload});
        case 7: {
            const std::size_t cut = payload.size() / 3;
            return buffer.WriteMultiDataPacket({header, {}},
                                               {payload.first(cut), {}, payload.subspan(cut)});
        }
        default:
            return buffer.WritePacket({header, payload});
    }
}

std::string NumberedPackets::Fault(const Packet& packet, std::uint64_t number) {
    const PacketHeader& header = packet.header;
    const ByteSpan& data = packet.data;
    const ByteSpan expected = Payload(number);
    const char* wrong = nullptr;
    if (header.pts != static_cast<std::int64_t>(number)) {
        wrong = "pts";
    } else if (header.length != data.size() || data.size() != expected.size()) {
        wrong = "length";
    } else if (header.ignoreData || header.key != (number % 3 == 0) ||
               header.timestampSec != static_cast<std::uint32_t>(number)) {
        wrong = "header";
    } else if (header.timestampUsec != Checksum(data)) {
        wrong = "checksum";
    } else if (std::memcmp(data.data(), expected.data(), data.size()) != 0) {
        wrong = "payload";
    }
    return wrong == nullptr
               ? std::string()
               : "packet " + std::to_string(number) + ": wrong " + wrong + ", pts " +
                     std::to_string(header.pts) + ", length " + std::to_string(header.length);
}

}  // namespace qel::test
