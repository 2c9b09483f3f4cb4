#include <gmock/gmock.h>

#include <cstdint>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "BuildKind.h"
#include "ChildProcess.h"
#include "LongForm.h"
#include "OpenBuffer.h"
#include "SegmentFile.h"
#include "Stages.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRingSize = 256 << 10;
constexpr std::size_t kLargestPayload = 2000;
constexpr unsigned kNodes = 5;

/// How many packets go through the chain.
std::uint64_t Packets() {
    return kSlowBuild ? 50000 : IsLongForm() ? 1000000 : 100000;
}

SharedBufferIF::BufferInfo InfoOf(const std::string& name, unsigned node, std::uint32_t maxFrames) {
    return {name, kRingSize, static_cast<std::uint8_t>(node), node + 1 == kNodes, maxFrames};
}

/// One stage of the chain: name, node and packet limit.
int Stage(const Arguments& arguments) {
    const auto node = static_cast<unsigned>(std::stoul(arguments.at(1)));
    const auto maxFrames = static_cast<std::uint32_t>(std::stoul(arguments.at(2)));
    const auto buffer = OpenBuffer(InfoOf(arguments.at(0), node, maxFrames));
    NumberedPackets packets(kLargestPayload);
    // Node 2 keeps a few packets back; node 3 hands several on in one step.
    const std::size_t held = node == 2 ? 3 : node == 3 ? 5 : 0;
    const Stop stop{false};  // the parent ends a stage that waits for a failed one
    const StageCounts counts = node == 0
                                   ? Produce(*buffer, packets, Packets(), stop)
                                   : PassOn(*buffer, packets, Packets(), held, node == 3, stop);
    std::cout << counts.packets << ' ' << counts.fillers << ' ' << counts.waits << std::endl;
    return EXIT_SUCCESS;
}
const RegisterRole kStage("stage", Stage);

class ChainOfFiveProcesses : public ::testing::TestWithParam<std::uint32_t> {
protected:
    StageCounts RunStages();
    void ExpectRest() const;

    const UniqueRingName name_;
};

/// Runs all stages; what the sink met.
StageCounts ChainOfFiveProcesses::RunStages() {
    // The limit counts in the process that opens the ring first; this one does.
    const auto first = OpenBuffer(InfoOf(name_.Name(), 1, GetParam()));
    std::vector<ChildProcess> stages;
    for (unsigned node = 0; node < kNodes; ++node) {
        stages.emplace_back(
            "stage", Arguments{name_.Name(), std::to_string(node), std::to_string(GetParam())});
    }
    EXPECT_TRUE(ChildProcess::AllSucceed(stages));
    StageCounts sink;
    for (unsigned node = 0; node < kNodes; ++node) {
        StageCounts counts;
        std::istringstream(stages.at(node).Hear()) >> counts.packets >> counts.fillers >>
            counts.waits;
        EXPECT_EQ(counts.packets, Packets()) << "node " << node;
        std::cout << "node " << node << ": " << counts.packets << " packets, " << counts.fillers
                  << " fillers, " << counts.waits << " waits\n";
        sink = counts;
    }
    EXPECT_EQ(first->GetCurrentCapacity().numPackets, 0U);
    EXPECT_EQ(first->GetCurrentCapacity().maxPackets, GetParam() == 0 ? 0 : GetParam() + 1);
    return sink;
}

void ChainOfFiveProcesses::ExpectRest() const {
    const SegmentFile segment(name_.Path());
    EXPECT_EQ(segment.Avail(0), kRingSize);
    EXPECT_EQ(segment.NumPackets(), 0U);
    EXPECT_EQ(segment.ReadIndex(0), 0U);
    for (unsigned node = 1; node < kNodes; ++node) {
        EXPECT_EQ(segment.Avail(node), 0U) << "node " << node;
        EXPECT_EQ(segment.WriteIndex(node), 0U) << "node " << node;
        EXPECT_EQ(segment.ReadIndex(node), segment.WriteIndex(0)) << "node " << node;
    }
}

TEST_P(ChainOfFiveProcesses, MovesPacketsOfRandomSizesWholeAndInOrderAndComesToRest) {
    const StageCounts sink = RunStages();
    // Nearly every lap leaves a rest that a filler covers.
    EXPECT_GT(sink.fillers, Packets() * (kLargestPayload / 2) / kRingSize / 2);
    ExpectRest();
}

INSTANTIATE_TEST_SUITE_P(PacketLimits, ChainOfFiveProcesses, ::testing::Values(0U, 40U),
                         [](const auto& limit) {
                             return limit.param == 0 ? std::string("None")
                                                     : std::to_string(limit.param);
                         });

}  // namespace
}  // namespace qel::test
