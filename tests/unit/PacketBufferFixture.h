#pragma once

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "MockRing.h"
#include "SharedPacketBuffer.h"

namespace qel::test {

/// A packet buffer on a ring that does what a test tells it; a call that no test expects fails.
class PacketBufferOnMock : public testing::Test {
protected:
    PacketBufferOnMock() {
        auto ring = std::make_unique<testing::StrictMock<MockRing>>();
        ring_ = ring.get();
        buffer_ = std::make_unique<SharedPacketBuffer>(std::move(ring));
    }

    /// A packet whose header says everything wrongly about its length.
    Packet MakePacket() {
        Packet packet;
        packet.header.length = 12345;
        packet.header.pts = -7;
        packet.header.key = true;
        packet.header.timestampSec = 11;
        packet.header.timestampUsec = 22;
        packet.data = data_;
        return packet;
    }

    MockRing& Ring() { return *ring_; }
    SharedPacketBufferIF& Buffer() { return *buffer_; }

    std::vector<unsigned char> data_{1, 2, 3, 4, 5};

private:
    MockRing* ring_;
    std::unique_ptr<SharedPacketBufferIF> buffer_;
};

/// A field of a packed record by value: matchers and assertions would refer to it unaligned.
template <typename T>
T Copied(T field) {
    return field;
}

/// The header whose bytes `bytes` are.
inline PacketHeader HeaderOf(const ByteSpan& bytes) {
    PacketHeader header;
    std::memcpy(&header, bytes.data(), sizeof(header));
    return header;
}

/// The 26 bytes of a record's header, field by field as they stand in the ring.
inline std::vector<unsigned char> HeaderBytes(std::uint64_t length, unsigned char ignoreData,
                                              std::int64_t pts, unsigned char key,
                                              std::uint32_t seconds, std::uint32_t microseconds) {
    std::vector<unsigned char> bytes;
    const auto append = [&bytes](const auto& value) {
        const auto* const start = reinterpret_cast<const unsigned char*>(&value);
        bytes.insert(bytes.end(), start, start + sizeof(value));
    };
    append(length);
    append(ignoreData);
    append(pts);
    append(key);
    append(seconds);
    append(microseconds);
    return bytes;
}

/// Matches a view of exactly these bytes.
MATCHER_P(HasBytes, expected, "") {
    return std::vector<unsigned char>(arg.begin(), arg.end()) == expected;
}

/// Matches a view of exactly the memory that `expected` views.
MATCHER_P(SameView, expected, "") {
    return arg.data() == expected.data() && arg.size() == expected.size();
}

inline constexpr SMStatusCode kAllStatuses[] = {SMStatusCode::SUCCESS,
                                                SMStatusCode::INVALID_PARAMETER,
                                                SMStatusCode::SHARED_MEMORY_FAILURE,
                                                SMStatusCode::NOT_ENOUGH_SPACE,
                                                SMStatusCode::DATA_NOT_AVAILABLE,
                                                SMStatusCode::WILL_WRAP};

}  // namespace qel::test
