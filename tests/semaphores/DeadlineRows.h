#pragma once

#include <cstdint>
#include <limits>
#include <vector>

namespace qel::test {

/// A deadline worked out by hand in exact fractions, each step then rounded to the nearest double,
/// ties to even.
struct DeadlineRow {
    const char* name;
    double timeout;     ///< seconds
    std::int64_t now;   ///< nanoseconds since the epoch
    std::int64_t sec;   ///< expected
    std::int64_t nsec;  ///< expected
};

inline std::vector<DeadlineRow> DeadlineRows() {
    constexpr std::int64_t kNow = 1700000000123456789;  // no double: the nearest ends in 768
    constexpr std::int64_t kWholeNow = 1700000000000000000;
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    return {
        {"NoTimeOut", 0.0, kNow, 1700000000, 123456768},
        {"NegativeZero", -0.0, kNow, 1700000000, 123456768},
        {"QuarterOfASecond", 0.25, kNow, 1700000000, 373456896},
        {"TenthOfASecond", 0.1, kNow, 1700000000, 223456768},
        {"TieOfASumRoundsToEven", 0.25, kWholeNow, 1700000000, 249999872},
        {"FractionsAddUpToAWholeSecond", 0.5, 750000000, 1, 250000000},
        {"NearlyTwoSecondsNearTheEpoch", 1.999999999, 0, 1, 999999999},
        {"FractionBelowASecondIsCut", 1.9999997, kWholeNow, 1700000001, 999999744},
        {"NearlyTwoSecondsWithoutACarry", 1.999999999, kNow, 1700000002, 123456768},
        {"LastNanosecondRoundsUpToAWholeSecond", 0.999999999, kWholeNow, 1700000001, 0},
        {"NanosecondIsLost", 1e-9, kNow, 1700000000, 123456768},
        {"NanosecondIsKeptNearTheEpoch", 1e-9, 0, 0, 1},
        {"FractionOfANanosecondIsCut", 1.9e-9, 0, 0, 1},
        {"FractionOfANanosecondIsCutTowardZero", -1.9e-9, 0, 0, -1},
        {"SmallestTimeOut", 5e-324, kNow, 1700000000, 123456768},
        {"ClockOnATieRoundsDownToEven", 0.0, 1152921504606847104, 1152921504, 606846976},
        {"ClockOnATieRoundsUpToEven", 0.0, 1152921504606847360, 1152921504, 606847488},
        {"SumIsOfNanosecondsNotOfSeconds", 8.501162985999981, 710750644266, 719, 251807252},
        {"ProductIsRoundedBeforeTheSum", -0.1, 100000005, 0, 5},
        {"OneSecondAgo", -1.0, kNow, 1699999999, 123456768},
        {"HalfASecondAgo", -0.5, kNow, 1699999999, 623456768},
        {"BackToTheEpoch", -1.7e9, kWholeNow, 0, 0},
        {"JustBeforeTheEpoch", -1700000001.5, kWholeNow, -1, -500000000},
        {"WithinTheSecondBeforeTheEpoch", -0.25, 100000000, 0, -150000000},
        {"LongBeforeTheEpoch", -1e10, kNow, -8299999999, -876542976},
        {"OneYear", 31536000.0, kNow, 1731536000, 123456768},
        {"ThreeCenturies", 1e10, kNow, 11700000000, 123457536},
        {"NanosecondsBelowZeroAreNotCarried", 9256085528228.338, 1700000000661003233, 9257785528229,
         -1048576},
        {"ManyNanosecondsBelowZeroAreNotCarried", 603461080997721.9, kNow, 603462780997722,
         -67108864},
        {"NanosecondsPastASecondAreNotCarried", 1.5240687327977856e+17, kNow, 152406874979778560,
         17179869184},
        {"ThirtyMillionYears", 1e15, kNow, 1000001700000000, 134217728},
        {"AgeOfTheUniverseTwice", 1e18, kNow, 1000000001700000000, 0},
        {"LastSecondsBeforeTheLimit", 9223372036854774784.0, 0, 9223372036854774784, 0},
        {"FirstSecondPastTheLimit", 9223372036854775808.0, 0, kMost, 0},
        {"FarPastTheLimit", 1e19, kNow, kMost, kMost},
        {"FarPastTheNegativeLimit", -1e19, kNow, kLeast, kLeast},
        {"ProductOverflows", 1e300, kNow, kMost, kMost},
        {"LongestTimeOut", std::numeric_limits<double>::max(), kNow, kMost, kMost},
        {"LongestTimeOutBefore", std::numeric_limits<double>::lowest(), kNow, kLeast, kLeast},
        {"Forever", kInfinity, kNow, kMost, kMost},
        {"ForeverAgo", -kInfinity, kNow, kLeast, kLeast},
        {"NotANumber", std::numeric_limits<double>::quiet_NaN(), kNow, kLeast, kLeast},
        {"ClockAtTheEpoch", 1.5, 0, 1, 500000000},
        {"ClockBeforeTheEpoch", 0.0, -1, 0, -1},
        {"ClockAndDeadlineBeforeTheEpoch", 0.25, -1500000000, -1, -250000000},
        {"LatestClock", 0.0, kMost, 9223372036, 854775808},
        {"EarliestClock", 0.0, kLeast, -9223372036, -854775808},
    };
}

}  // namespace qel::test
