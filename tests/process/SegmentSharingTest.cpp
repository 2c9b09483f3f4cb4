#include <gmock/gmock.h>

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "NumberedPackets.h"
#include "OpenBuffer.h"
#include "SegmentFile.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRingSize = 8192;
constexpr std::size_t kLargestPayload = 500;

void WaitForLine() {
    std::string line;
    std::getline(std::cin, line);
}

/// Opens a ring when told to, says so, and keeps it until it is told again. The producer among the
/// openers writes a packet as soon as there is room.
int Opener(const Arguments& arguments) {
    const SharedBufferIF::BufferInfo info{
        arguments.at(0), kRingSize, static_cast<std::uint8_t>(std::stoul(arguments.at(1))),
        arguments.at(1) == "4", static_cast<std::uint32_t>(std::stoul(arguments.at(2)))};
    std::cout << "ready" << std::endl;
    WaitForLine();
    const auto buffer = OpenBuffer(info);
    if (info.nodeIdx == 0) {
        NumberedPackets packets(kLargestPayload);
        while (packets.Write(*buffer, 0) == SMStatusCode::NOT_ENOUGH_SPACE) {
        }
    }
    std::cout << "open" << std::endl;
    WaitForLine();
    std::cout << buffer->GetCurrentCapacity().maxPackets << std::endl;
    return EXIT_SUCCESS;
}
const RegisterRole kOpener("opener", Opener);

/// Opens a ring as its arguments say and leaves it.
int Visitor(const Arguments& arguments) {
    OpenBuffer({arguments.at(0), std::stoull(arguments.at(1)), 1, false,
                static_cast<std::uint32_t>(std::stoul(arguments.at(2)))});
    return EXIT_SUCCESS;
}
const RegisterRole kVisitor("visitor", Visitor);

class OpeningARing : public ::testing::Test {
protected:
    void RunOpeners();

    const UniqueRingName name_;
};

/// Ten processes open one new ring at once, five nodes twice over but for the producer, each with
/// a packet limit of its own.
void OpeningARing::RunOpeners() {
    const std::vector<std::string> nodes{"1", "2", "3", "4", "0", "1", "2", "3", "4", "1"};
    std::vector<ChildProcess> openers;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        openers.emplace_back("opener", Arguments{name_.Name(), nodes[i], std::to_string(100 + i)});
    }
    for (const auto& opener : openers) {
        ASSERT_EQ(opener.Hear(), "ready");
    }
    for (const auto& opener : openers) {
        opener.Tell("go");
    }
    for (const auto& opener : openers) {
        ASSERT_EQ(opener.Hear(), "open");
    }
    const SegmentFile segment(name_.Path());
    EXPECT_EQ(segment.Length(), kRingSize + SegmentFile::kControlSize);
    EXPECT_EQ(segment.Initialised(), 1U);
    EXPECT_EQ(segment.HalfSize(), kRingSize / 2);
    EXPECT_EQ(segment.QuarterSize(), kRingSize / 4);
    EXPECT_GE(segment.MaxPackets(), 101U);
    EXPECT_LE(segment.MaxPackets(), 100U + nodes.size());
    // A second initialisation would have freed the bytes of the packet again.
    EXPECT_GT(segment.Avail(1), 0U);
    EXPECT_EQ(segment.Avail(0) + segment.Avail(1), kRingSize);
    EXPECT_EQ(segment.WriteIndex(0), segment.Avail(1));
    for (auto& opener : openers) {
        opener.Tell("end");
        EXPECT_EQ(opener.Hear(), std::to_string(segment.MaxPackets()));
    }
    EXPECT_TRUE(ChildProcess::AllSucceed(openers));
    EXPECT_EQ(SegmentFile(name_.Path()).Bytes(), segment.Bytes());
}

class OpeningARingAtOnce : public OpeningARing, public ::testing::WithParamInterface<int> {};

TEST_P(OpeningARingAtOnce, InitialisesItOnce) {
    RunOpeners();
}

INSTANTIATE_TEST_SUITE_P(Rounds, OpeningARingAtOnce, ::testing::Range(0, 8));

TEST_F(OpeningARing, OfThisSizeAgainWithAnotherLimitChangesNothing) {
    const auto buffer = OpenBuffer({name_.Name(), kRingSize, 0, false, 4});
    NumberedPackets packets(kLargestPayload);
    ASSERT_EQ(packets.Write(*buffer, 1), SMStatusCode::SUCCESS);
    const SegmentFile before(name_.Path());
    EXPECT_EQ(before.MaxPackets(), 5U);
    EXPECT_EQ(before.NumPackets(), 1U);
    for (const char* const limit : {"0", "9", "4294967295"}) {
        ChildProcess visitor("visitor", {name_.Name(), std::to_string(kRingSize), limit});
        EXPECT_EQ(visitor.Wait(), EXIT_SUCCESS);
        const SegmentFile after(name_.Path());
        EXPECT_EQ(after.Bytes(), before.Bytes());
        EXPECT_EQ(after.Length(), before.Length());
    }
}

TEST_F(OpeningARing, WithALargerSizeGrowsTheFileAndChangesNothingElse) {
    const auto buffer = OpenBuffer({name_.Name(), kRingSize, 0, false, 0});
    NumberedPackets packets(kLargestPayload);
    ASSERT_EQ(packets.Write(*buffer, 1), SMStatusCode::SUCCESS);
    const SegmentFile before(name_.Path());
    ChildProcess visitor("visitor", {name_.Name(), std::to_string(3 * kRingSize), "7"});
    EXPECT_EQ(visitor.Wait(), EXIT_SUCCESS);
    const SegmentFile after(name_.Path());
    EXPECT_EQ(after.Bytes(), before.Bytes());
    EXPECT_EQ(after.Length(), 3 * kRingSize + SegmentFile::kControlSize);
    // The writer's mapping is as good as before.
    EXPECT_EQ(packets.Write(*buffer, 2), SMStatusCode::SUCCESS);
}

TEST_F(OpeningARing, ThatWasMadeSmallerByHandGrowsItAgain) {
    OpenBuffer({name_.Name(), 100, 0, false, 0});
    EXPECT_EQ(SegmentFile(name_.Path()).Length(), 100 + SegmentFile::kControlSize);
    const auto buffer = OpenBuffer({name_.Name(), kRingSize, 1, true, 0});
    EXPECT_EQ(SegmentFile(name_.Path()).Length(), kRingSize + SegmentFile::kControlSize);
    const auto last = buffer->ReadData(kRingSize - 1, 1);
    ASSERT_EQ(last.status, SMStatusCode::SUCCESS);
    EXPECT_EQ(last.data[0], 0);
}

}  // namespace
}  // namespace qel::test
