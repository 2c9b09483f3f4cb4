#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "Packet.h"

namespace qel::test {

/// Packets whose every byte follows from their number, which the payload begins with.
class TellingPackets {
public:
    /// What the headers tell apart; payloads are never alike.
    enum class Times {
        None,
        Each,    ///< every packet
        Shared,  ///< the first of a number of packets, like the slices of pictures, from the others
    };

    TellingPackets(std::uint64_t smallest, std::uint64_t largest, Times times)
        : smallest_(smallest < sizeof(std::uint64_t) ? sizeof(std::uint64_t) : smallest),
          largest_(largest),
          times_(times) {}

    /// Its data is there until the next call.
    Packet Make(std::uint64_t number) {
        bytes_.resize(smallest_ + Mix(number) % (largest_ - smallest_ + 1));
        std::memcpy(bytes_.data(), &number, sizeof(number));
        for (std::size_t place = sizeof(number); place < bytes_.size(); ++place) {
            bytes_[place] = static_cast<unsigned char>(Mix(number + place) >> 24U);
        }
        Packet packet;
        if (times_ != Times::None) {
            constexpr std::uint64_t kSlices = 50;
            const std::uint64_t time = times_ == Times::Each ? number : number / kSlices;
            packet.header.pts = static_cast<std::int64_t>(time) + 1;
            packet.header.key = time % 7 == 0;
            packet.header.timestampSec = static_cast<std::uint32_t>(time);
        }
        packet.header.length = bytes_.size();
        packet.data = {bytes_.data(), bytes_.size()};
        return packet;
    }

    /// The number of a packet; nothing unless it is, byte for byte, the one of that number.
    std::optional<std::uint64_t> NumberOf(const PacketHeader& header, const ByteSpan& payload) {
        std::uint64_t number = 0;
        if (payload.size() < sizeof(number)) {
            return std::nullopt;
        }
        std::memcpy(&number, payload.data(), sizeof(number));
        const Packet made = Make(number);
        const bool isSame = payload.size() == made.data.size() &&
                            std::memcmp(payload.data(), made.data.data(), payload.size()) == 0 &&
                            std::memcmp(&header, &made.header, sizeof(header)) == 0;
        return isSame ? std::optional(number) : std::nullopt;
    }

private:
    static std::uint64_t Mix(std::uint64_t value) {
        value *= 0x9e3779b97f4a7c15U;
        value ^= value >> 29U;
        return value * 0xbf58476d1ce4e5b9U >> 11U;
    }

    std::uint64_t smallest_;
    std::uint64_t largest_;
    Times times_;
    std::vector<unsigned char> bytes_;
};

}  // namespace qel::test
