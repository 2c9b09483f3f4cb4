#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "Deadline.h"
#include "DeadlineRows.h"

namespace qel::test {
namespace {

class Deadline : public testing::TestWithParam<DeadlineRow> {};

TEST_P(Deadline, IsWhatExactArithmeticRoundedStepByStepGives) {
    const DeadlineRow& row = GetParam();
    const timespec deadline = DeadlineAfter(std::chrono::duration<double>(row.timeout), row.now);
    EXPECT_EQ(deadline.tv_sec, row.sec);
    EXPECT_EQ(deadline.tv_nsec, row.nsec);
}

TEST(TruncationToInteger, SaturatesExactlyAtTheEndsOfTheRange) {
    constexpr double kLimit = 9223372036854775808.0;
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(SaturatingTruncate(kLimit), kMost);
    EXPECT_EQ(SaturatingTruncate(std::nextafter(kLimit, 0.0)), 9223372036854774784);
    EXPECT_EQ(SaturatingTruncate(-kLimit), kLeast);
    EXPECT_EQ(SaturatingTruncate(std::nextafter(-kLimit, 0.0)), -9223372036854774784);
    EXPECT_EQ(SaturatingTruncate(std::nextafter(-kLimit, -2 * kLimit)), kLeast);
}

TEST(TruncationToInteger, CutsTowardZero) {
    EXPECT_EQ(SaturatingTruncate(1.999), 1);
    EXPECT_EQ(SaturatingTruncate(-1.999), -1);
    EXPECT_EQ(SaturatingTruncate(-0.999), 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, Deadline, testing::ValuesIn(DeadlineRows()),
                         [](const auto& row) { return row.param.name; });

// With more than twice the digits, a sum, product or quotient that is then rounded to double is
// the correctly rounded one.
__extension__ using Wide = __float128;

double Rounded(Wide value) {
    return static_cast<double>(value);
}

timespec WideDeadline(double timeout, std::int64_t now) {
    const Wide total = Rounded(Wide(Rounded(Wide(timeout) * 1000000000)) + Rounded(Wide(now)));
    timespec deadline{};
    deadline.tv_sec = static_cast<std::int64_t>(Rounded(total / 1000000000));
    const Wide seconds = Rounded(Wide(deadline.tv_sec));
    deadline.tv_nsec = static_cast<std::int64_t>(Rounded(total - Rounded(seconds * 1000000000)));
    return deadline;
}

TEST(DeadlineOfManyTimeOuts, IsWhatWiderArithmeticRoundedStepByStepGives) {
    std::mt19937_64 random(20240229);  // NOLINT(cert-msc51-cpp): the same rows in every run
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
    std::uniform_int_distribution<int> exponent(-40, 60);
    std::uniform_int_distribution<int> shift(0, 62);
    for (int i = 0; i < 100000; ++i) {
        const double timeout = std::ldexp(mantissa(random), exponent(random));
        const std::int64_t now = static_cast<std::int64_t>(random()) >> shift(random);
        const timespec deadline = DeadlineAfter(std::chrono::duration<double>(timeout), now);
        const timespec expected = WideDeadline(timeout, now);
        ASSERT_EQ(deadline.tv_sec, expected.tv_sec) << timeout << " s after " << now;
        ASSERT_EQ(deadline.tv_nsec, expected.tv_nsec) << timeout << " s after " << now;
    }
}

}  // namespace
}  // namespace qel::test
