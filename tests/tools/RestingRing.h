#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Command.h"
#include "ControlBlock.h"
#include "OpenRing.h"
#include "Packet.h"
#include "UniqueRingName.h"

namespace qel::test {

/// A ring of two nodes, which nobody has open, and its fields.
class RestingRing {
public:
    static constexpr std::uint64_t kSize = 4096;

    explicit RestingRing(std::uint32_t maxFrames = 0) : maxFrames_(maxFrames) { (void)Open(0); }

    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node) const {
        return OpenRing({name_.Name(), kSize, node, node == 1, maxFrames_});
    }
    /// Writes a packet, as a process that then ends.
    void Write(const std::string& content) const {
        std::string bytes = content;
        Packet packet;
        packet.data = {reinterpret_cast<unsigned char*>(bytes.data()), bytes.size()};
        EXPECT_EQ(Open(0)->WritePacket(packet), SMStatusCode::SUCCESS);
    }
    /// The next packet, read and released by a process that then ends.
    [[nodiscard]] std::string Read() const {
        const auto sink = Open(1);
        const auto next = sink->ReadNextPacket();
        EXPECT_EQ(next.status, SMStatusCode::SUCCESS);
        EXPECT_EQ(sink->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        return {next.packet.data.begin(), next.packet.data.end()};
    }
    /// Changes the control block, as the death of a process does.
    template <typename Change>
    void Leave(const Change& change) const {
        std::string bytes = ReadFile(name_.Path());
        change(*reinterpret_cast<ControlBlock*>(bytes.data()));
        WriteFile(name_.Path(), bytes);
    }
    void LeaveStaleIndex(std::uint64_t bytes) const {
        Leave([bytes](ControlBlock& control) { control.wIdx[0].fetch_sub(bytes); });
    }
    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::string Path() const { return name_.Path(); }

private:
    UniqueRingName name_;
    std::uint32_t maxFrames_;
};

constexpr std::uint64_t kRecord = 26 + 5;  ///< length of a packet of five bytes

}  // namespace qel::test
