#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "RingRules.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kLargestSize = INT64_MAX - 152;

template <typename Check>
std::string RefusalOf(const Check& check) {
    try {
        check();
    } catch (const std::invalid_argument& refusal) {
        return refusal.what();
    }
    return "";
}

TEST(RingRules, ObjectNameIsTheRingsNameBetweenSlashAndSuffix) {
    EXPECT_EQ(RingObjectName("demo"), "/demo.shm");
}

struct NameRow {
    std::string name;
    std::string refusal;
};

class RingNames : public testing::TestWithParam<NameRow> {};

TEST_P(RingNames, AreRefusedForOneClearReason) {
    EXPECT_EQ(RefusalOf([] { RequireRingName(GetParam().name); }), GetParam().refusal);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RingNames,
    testing::Values(NameRow{"demo", ""}, NameRow{".", ""}, NameRow{std::string(251, 'n'), ""},
                    NameRow{"", "the name of a ring must not be empty"},
                    NameRow{"a/b", "the name of a ring must not contain a slash: a/b"},
                    NameRow{"/", "the name of a ring must not contain a slash: /"},
                    NameRow{std::string(252, 'n'),
                            "the name of a ring has at most 251 characters, not 252"}));

struct SizeRow {
    std::uint64_t size;
    std::string refusal;
};

class RingSizes : public testing::TestWithParam<SizeRow> {};

TEST_P(RingSizes, AreRefusedForOneClearReason) {
    EXPECT_EQ(RefusalOf([] { RequireRingSize(GetParam().size); }), GetParam().refusal);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RingSizes,
    testing::Values(SizeRow{1, ""}, SizeRow{kLargestSize, ""},
                    SizeRow{0, "the size of a ring must not be 0"},
                    SizeRow{kLargestSize + 1,
                            "the size of a ring is at most 9223372036854775655 bytes, not "
                            "9223372036854775656"}));

TEST(RingRules, LargestPayloadLeavesRoomForTheHeaderAndTheReserve) {
    EXPECT_EQ(LargestPayload(1000), 844U);
    EXPECT_EQ(LargestPayload(157), 1U);
    EXPECT_EQ(LargestPayload(156), 0U);
    EXPECT_EQ(LargestPayload(155), std::nullopt);
    EXPECT_EQ(LargestPayload(0), std::nullopt);
}

TEST(RingRules, CriticalPayloadFillsTheRingOrLeavesRoomForAHeader) {
    EXPECT_TRUE(CriticalPayloadFits(974, 1000));
    EXPECT_FALSE(CriticalPayloadFits(975, 1000));
    EXPECT_FALSE(CriticalPayloadFits(973, 1000));
    EXPECT_FALSE(CriticalPayloadFits(949, 1000));
    EXPECT_TRUE(CriticalPayloadFits(948, 1000));
    EXPECT_TRUE(CriticalPayloadFits(0, 26));
    EXPECT_FALSE(CriticalPayloadFits(0, 25));
    EXPECT_FALSE(CriticalPayloadFits(UINT64_MAX, 1000));
}

}  // namespace
}  // namespace qel::test
