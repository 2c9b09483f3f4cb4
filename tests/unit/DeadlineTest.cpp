// The deadline of a timed wait, against a computation in numbers of 113 bits that are rounded to a
// double after every step.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "Deadline.h"

namespace qel::test {
namespace {

__extension__ using Quad = __float128;

constexpr std::int64_t kNow = 1700000000123456789;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

timespec After(double seconds, std::int64_t now = kNow) {
    return DeadlineAfter(std::chrono::duration<double>(seconds), now);
}

void ExpectDeadline(std::int64_t seconds, std::int64_t nanoseconds, const timespec& deadline) {
    EXPECT_EQ(seconds, deadline.tv_sec);
    EXPECT_EQ(nanoseconds, deadline.tv_nsec);
}

/// The same rule, with products, sums and quotients formed wide and then rounded once each.
timespec Reference(double seconds, std::int64_t now) {
    const auto rounded = [](Quad value) { return static_cast<double>(value); };
    const Quad billion = 1000000000;
    const double product = rounded(Quad{seconds} * billion);
    const double total = rounded(Quad{product} + Quad{rounded(Quad(now))});
    timespec deadline{};
    deadline.tv_sec = static_cast<std::int64_t>(rounded(Quad{total} / billion));
    const double whole = rounded(Quad{rounded(Quad(deadline.tv_sec))} * billion);
    deadline.tv_nsec = static_cast<std::int64_t>(rounded(Quad{total} - Quad{whole}));
    return deadline;
}

// At 1.7e18 a double counts in steps of 256.
TEST(Deadline, ZeroIsNowToTheResolutionOfADouble) {
    ExpectDeadline(1700000000, 123456768, After(0.0));
    ExpectDeadline(1700000000, 0, After(0.0, 1700000000000000000));
    ExpectDeadline(0, 0, After(0.0, 0));
}

TEST(Deadline, FractionStandsInTheNanoseconds) {
    ExpectDeadline(1700000000, 249999872, After(0.25, 1700000000000000000));  // a tie, to even
    ExpectDeadline(0, 250000000, After(0.25, 0));
    ExpectDeadline(1, 250000000, After(0.5, 750000000));
}

TEST(Deadline, FractionJustBelowASecondIsCutAndNotCarried) {
    ExpectDeadline(1, 999999999, After(1.999999999, 0));
    ExpectDeadline(1700000002, 0, After(1.999999999, 1700000000000000000));
    ExpectDeadline(1700000001, 999999744, After(1.9999997, 1700000000000000000));
}

TEST(Deadline, NegativeTimeoutLiesInThePast) {
    ExpectDeadline(1699999998, 500000000, After(-1.5, 1700000000000000000));
    ExpectDeadline(0, 500000000, After(-0.5, 1000000000));
}

TEST(Deadline, ConversionCutsTowardZeroOnBothSidesOfTheEpoch) {
    ExpectDeadline(0, -500000000, After(-0.5, 0));
    ExpectDeadline(-1, -500000000, After(-1.5, 0));
    ExpectDeadline(0, 1, After(1.9e-9, 0));
    ExpectDeadline(0, -1, After(-1.9e-9, 0));
}

TEST(Deadline, NanosecondsPushedOutOfRangeByRoundingAreNeitherCarriedNorClamped) {
    ExpectDeadline(603462780997722, -67108864, After(603461080997721.9));
    ExpectDeadline(152406874979778560, 17179869184, After(1.5240687327977856e+17));
}

TEST(Deadline, EveryBitAgreesWithTheWideComputation) {
    const double timeouts[] = {0.0,    0.25,    1.999999999, 0.1,     1e-9,    1.0 / 3.0,
                               3600.0, 86400.5, -0.25,       -1.5,    -3600.1, 123456.789,
                               1e9,    -1.7e9,  5e-324,      0.000001};
    std::int64_t now = kNow;
    for (int step = 0; step < 2000; ++step) {
        for (const double timeout : timeouts) {
            const timespec expected = Reference(timeout, now);
            const timespec actual = After(timeout, now);
            ASSERT_EQ(expected.tv_sec, actual.tv_sec) << timeout << " after " << now;
            ASSERT_EQ(expected.tv_nsec, actual.tv_nsec) << timeout << " after " << now;
        }
        now += 987654321987;
    }
}

TEST(Deadline, ProductIsRoundedBeforeTheSum) {
    // Fused into one step, the sum would not lose what the rounded product has lost.
    const double third = 1.0 / 3.0;
    const double product = third * 1000000000.0;
    ASSERT_NE(0.0, std::fma(third, 1000000000.0, -product));
    const std::int64_t now = -333333333;
    const timespec expected = Reference(third, now);
    ExpectDeadline(expected.tv_sec, expected.tv_nsec, After(third, now));
}

TEST(Deadline, WhatNoIntegerCanHoldSaturatesAndIsLeftToTheSystem) {
    const double infinity = std::numeric_limits<double>::infinity();
    ExpectDeadline(kMax, kMax, After(infinity));
    ExpectDeadline(kMin, kMin, After(-infinity));
    ExpectDeadline(kMin, kMin, After(std::numeric_limits<double>::quiet_NaN()));
    ExpectDeadline(kMax, kMax, After(std::numeric_limits<double>::max()));
    ExpectDeadline(kMin, kMin, After(std::numeric_limits<double>::lowest()));
    ExpectDeadline(kMax, kMax, After(1e20));
    ExpectDeadline(kMin, kMin, After(-1e20));
}

TEST(Deadline, TruncationSaturatesExactlyAtTheEndsOfTheRange) {
    const double limit = 9223372036854775808.0;
    EXPECT_EQ(kMax, SaturatingTruncate(limit));
    EXPECT_EQ(9223372036854774784, SaturatingTruncate(std::nextafter(limit, 0.0)));
    EXPECT_EQ(kMin, SaturatingTruncate(-limit));
    EXPECT_EQ(-9223372036854774784, SaturatingTruncate(std::nextafter(-limit, 0.0)));
    EXPECT_EQ(kMin, SaturatingTruncate(std::nextafter(-limit, -1e30)));
    EXPECT_EQ(1, SaturatingTruncate(1.999));
    EXPECT_EQ(-1, SaturatingTruncate(-1.999));
    EXPECT_EQ(0, SaturatingTruncate(-0.999));
}

}  // namespace
}  // namespace qel::test
