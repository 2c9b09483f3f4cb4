#pragma once

#include <gmock/gmock.h>

#include <vector>

#include "SharedPacketBufferIF.h"

namespace qel::test {

/// A packet buffer that answers what a test wants.
class MockPacketBuffer : public SharedPacketBufferIF {
public:
    MOCK_METHOD(SMStatusCode, DoReleasePacket, (const Packet&), (override));
    MOCK_METHOD(SMStatusCode, DoReleasePackets, (std::vector<Packet>), (override));
    MOCK_METHOD(SMStatusCode, DoWritePacket, (const Packet&), (override));
    MOCK_METHOD(SMStatusCode, DoWriteCriticalPacket, (const Packet&), (override));
    MOCK_METHOD(SMStatusCode, DoWriteMultiDataPacket, (const Packet&, const std::vector<ByteSpan>&),
                (override));
    MOCK_METHOD(ReadNextPacketResult, DoReadNextPacket, (), (override));
    MOCK_METHOD(void, DoPrint, (LogLevel), (override));
    MOCK_METHOD(Capacity, DoGetCurrentCapacity, (), (override));
    MOCK_METHOD(ReadResult, DoReadData, (unsigned long, unsigned long), (override));
};

/// Bytes with a packet around them.
class OwnedPacket {
public:
    explicit OwnedPacket(std::size_t size, std::int64_t pts = 0, unsigned char fill = 'x')
        : bytes_(size, fill) {
        packet_.header.pts = pts;
        packet_.data = {bytes_.data(), bytes_.size()};
    }
    OwnedPacket(const OwnedPacket&) = delete;
    OwnedPacket& operator=(const OwnedPacket&) = delete;

    [[nodiscard]] const Packet& Get() const { return packet_; }

private:
    std::vector<unsigned char> bytes_;
    Packet packet_;
};

}  // namespace qel::test
