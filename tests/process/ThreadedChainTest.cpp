#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "BuildKind.h"
#include "FakeKernel.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"
#include "Stages.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRingSize = 16384;
constexpr unsigned kWatchdogSeconds = 200;

struct Traffic {
    const char* name;
    unsigned nodes;
    std::uint32_t maxFrames;
    std::size_t largestPayload;
    std::uint64_t packets;

    friend std::ostream& operator<<(std::ostream& stream, const Traffic& traffic) {
        return stream << traffic.name;
    }
};

/// Nodes as threads of one process, and one mapping for all of them: what a race detector needs to
/// see two of them touch the same byte.
class ChainOfThreads : public ::testing::TestWithParam<Traffic> {
protected:
    // Bytes that got lost would let the stages wait for ever.
    void SetUp() override { ::alarm(kWatchdogSeconds); }
    void TearDown() override { ::alarm(0); }

    /// Runs one stage on a thread of its own; its counts, or the text of its failure.
    void Run(unsigned node) {
        try {
            NumberedPackets packets(traffic_.largestPayload);
            const std::size_t held = node == 1 ? 2 : 0;
            counts_.at(node) =
                node == 0
                    ? Produce(*buffers_.at(node), packets, traffic_.packets, stop_)
                    : PassOn(*buffers_.at(node), packets, traffic_.packets, held, false, stop_);
        } catch (const std::exception& error) {
            faults_.at(node) = error.what();
            stop_ = true;
        }
    }

    /// What stands at the head of the segment.
    [[nodiscard]] std::uint64_t FreeBytes() const {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, kernel_->MemoryOf("/threads.shm"), sizeof(bytes));
        return bytes;
    }

    const Traffic traffic_ = GetParam();
    const unsigned nodes_ = traffic_.nodes;
    const std::shared_ptr<FakeKernel> kernel_ = std::make_shared<FakeKernel>();
    std::vector<std::unique_ptr<SharedPacketBufferIF>> buffers_;
    std::vector<StageCounts> counts_{nodes_};
    std::vector<std::string> faults_{nodes_};
    Stop stop_{false};
};

TEST_P(ChainOfThreads, MovesPacketsWholeAndInOrderAndComesToRest) {
    // All are open before any runs: setting up the ring is not atomic as a whole.
    for (unsigned node = 0; node < nodes_; ++node) {
        buffers_.push_back(std::make_unique<SharedPacketBuffer>(std::make_unique<SharedBuffer>(
            kernel_,
            SharedBufferIF::BufferInfo{"threads", kRingSize, static_cast<std::uint8_t>(node),
                                       node + 1 == nodes_, traffic_.maxFrames})));
    }
    std::vector<std::thread> threads;
    for (unsigned node = 0; node < nodes_; ++node) {
        threads.emplace_back([this, node] { Run(node); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (unsigned node = 0; node < nodes_; ++node) {
        EXPECT_EQ(faults_.at(node), "") << "node " << node;
        EXPECT_EQ(counts_.at(node).packets, traffic_.packets) << "node " << node;
    }
    // Nearly every lap leaves a rest that a filler covers.
    EXPECT_GT(counts_.back().fillers,
              traffic_.packets * (26 + traffic_.largestPayload / 2) / kRingSize / 2);
    EXPECT_EQ(buffers_.front()->GetCurrentCapacity().numPackets, 0U);
    EXPECT_EQ(FreeBytes(), kRingSize);
}

// Packets of next to nothing make the nodes meet at the counters as often as can be.
INSTANTIATE_TEST_SUITE_P(
    Traffic, ChainOfThreads,
    ::testing::Values(
        Traffic{"TwoNodes", 2, 0, 700, 50000}, Traffic{"TwoNodesWithALimit", 2, 8, 700, 50000},
        Traffic{"ThreeNodes", 3, 0, 700, 50000}, Traffic{"ThreeNodesWithALimit", 3, 8, 700, 20000},
        Traffic{"FiveNodes", 5, 0, 700, 50000}, Traffic{"FiveNodesWithALimit", 5, 8, 700, 10000},
        Traffic{"SmallPackets", 2, 0, 8, kSlowBuild ? 50000 : 1000000},
        Traffic{"SmallPacketsWithALimit", 2, 50, 8, kSlowBuild ? 50000 : 1000000}),
    [](const auto& traffic) { return std::string(traffic.param.name); });

}  // namespace
}  // namespace qel::test
