#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "OpenRing.h"
#include "UniqueRingName.h"

namespace qel::test {

/// A real ring, whose nodes are all this process.
class RingUnderTest {
public:
    static constexpr std::uint64_t kSize = 5000;

    /// @param sink  the chain's last node
    explicit RingUnderTest(std::uint8_t sink = 1, std::uint32_t maxFrames = 0) {
        for (std::uint8_t node = 0; node <= sink; ++node) {
            nodes_.push_back(OpenRing({name_.Name(), kSize, node, node == sink, maxFrames}));
        }
    }

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::string Path() const { return name_.Path(); }
    [[nodiscard]] SharedPacketBufferIF& Node(std::size_t node) const { return *nodes_.at(node); }

    /// @return the packet's content, which `number` tells
    std::vector<unsigned char> Write(std::int64_t number, std::size_t size) const {
        std::vector<unsigned char> content(size, static_cast<unsigned char>('a' + number % 26));
        Packet packet;
        packet.header.pts = number;
        packet.header.key = number % 2 == 0;
        packet.header.timestampSec = 7;
        packet.header.timestampUsec = static_cast<std::uint32_t>(number);
        packet.data = content;
        EXPECT_EQ(Node(0).WritePacket(packet), SMStatusCode::SUCCESS);
        return content;
    }

    [[nodiscard]] Packet Read(std::size_t node) const {
        const auto next = Node(node).ReadNextPacket();
        EXPECT_EQ(next.status, SMStatusCode::SUCCESS);
        return next.packet;
    }

    void PassOn(std::size_t node) const {
        const Packet packet = Read(node);
        EXPECT_EQ(Node(node).ReleasePacket(packet), SMStatusCode::SUCCESS);
    }

    /// Closes all nodes; the object stays until the end.
    void Close() { nodes_.clear(); }

private:
    UniqueRingName name_;
    std::vector<std::unique_ptr<SharedPacketBufferIF>> nodes_;
};

}  // namespace qel::test
