#include <gtest/gtest.h>

#include <stdexcept>

#include "StreamNames.h"
#include "Thrown.h"

namespace qel::test {
namespace {

TEST(StreamNames, AreThoseOfTheRingWithWhatTheObjectIs) {
    const StreamNames names("camera");
    EXPECT_EQ(names.ring, "camera");
    EXPECT_EQ(names.control, "camera.ctl");
    EXPECT_EQ(names.caps, "camera.caps");
    EXPECT_EQ(names.WakeUp(0), "camera.node0");
    EXPECT_EQ(names.WakeUp(4), "camera.node4");
}

TEST(StreamNames, LongestNameIsThatOfWhichEveryObjectCanBeNamed) {
    const std::string longest(239, 'x');  // ".caps" makes it the longest name of a block
    EXPECT_EQ(StreamNames(longest).caps.size(), 244U);
    EXPECT_EQ(Thrown<std::invalid_argument>([&] { const StreamNames names(longest + "x"); }),
              "the name of a block has at most 244 characters, not 245");
}

TEST(StreamNames, NoStreamHasANameThatNoRingHas) {
    EXPECT_EQ(Thrown<std::invalid_argument>([] { const StreamNames names(""); }),
              "the name of a ring must not be empty");
    EXPECT_EQ(Thrown<std::invalid_argument>([] { const StreamNames names("a/b"); }),
              "the name of a ring must not contain a slash: a/b");
}

struct SizeRow {
    std::uint64_t ring;
    std::uint64_t control;
};

class ControlRing : public testing::TestWithParam<SizeRow> {};

TEST_P(ControlRing, IsASixteenthOfTheRingWithinLimits) {
    EXPECT_EQ(ControlRingSize(GetParam().ring), GetParam().control);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ControlRing,
                         testing::Values(SizeRow{1, 262144}, SizeRow{4194304, 262144},
                                         SizeRow{4194320, 262145}, SizeRow{16000000, 1000000},
                                         SizeRow{67108864, 4194304}, SizeRow{67108895, 4194304},
                                         SizeRow{1ULL << 40, 4194304}));

}  // namespace
}  // namespace qel::test
