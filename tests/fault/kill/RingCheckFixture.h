#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "RingCheck.h"
#include "Traffic.h"

namespace qel::test {

/// A ring of three nodes with a packet limit, and a process that does nothing.
class CheckOfARing : public testing::Test {
protected:
    static constexpr std::uint64_t kSize = 2000;
    static constexpr std::uint32_t kMaxFrames = 5;

    [[nodiscard]] qel::Findings Check(const RingUsers& users = {},
                                      const RingCheckOptions& given = {}) const {
        RingCheckOptions options = given;
        options.judge.patience.pause = [](auto) {};
        return CheckRing(ring_.File(), users, options);
    }
    [[nodiscard]] std::vector<std::string> Codes(const RingUsers& users = {},
                                                 const RingCheckOptions& options = {}) const {
        std::vector<std::string> codes;
        for (const qel::Finding& finding : Check(users, options)) {
            codes.push_back(finding.code);
        }
        return codes;
    }
    [[nodiscard]] ControlBlock& Control() const { return ring_.View().control; }
    void Write(std::int64_t number, std::size_t size = 100) const {
        ASSERT_EQ(WriteNumbered(*writer_, number, size), SMStatusCode::SUCCESS);
    }
    /// Node `node` reads a packet.
    void Take(SharedPacketBufferIF& node, bool releases) const {
        const auto next = node.ReadNextPacket();
        ASSERT_EQ(next.status, SMStatusCode::SUCCESS);
        if (releases) {
            ASSERT_EQ(node.ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
    }

    const RingImage ring_{{kSize, 2, kMaxFrames}};
    const std::unique_ptr<SharedPacketBufferIF> writer_ = ring_.Open(0);
    const std::unique_ptr<SharedPacketBufferIF> middle_ = ring_.Open(1);
    const std::unique_ptr<SharedPacketBufferIF> sink_ = ring_.Open(2);
    const ChildProcess sleeper_{[](const Conversation& parent) {
        (void)parent.Hear();
        return 0;
    }};
};

}  // namespace qel::test
