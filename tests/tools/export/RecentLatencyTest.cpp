#include <gtest/gtest.h>

#include "RecentLatency.h"

namespace qel::test {
namespace {

TEST(RecentLatencies, AreNothingBeforeAnythingIsRead) {
    RecentLatency latency;
    EXPECT_FALSE(latency.Value());
    latency.Take(0, 3);
    EXPECT_FALSE(latency.Value());
}

TEST(RecentLatencies, AreThoseOfTheBytesRead) {
    RecentLatency latency;
    latency.Take(1000, 500);
    EXPECT_DOUBLE_EQ(latency.Value().value(), 0.5);
    latency.Take(2000, 1000);
    EXPECT_DOUBLE_EQ(latency.Value().value(), 0.5);
}

TEST(RecentLatencies, ForgetWhatIsLongAgo) {
    RecentLatency latency;
    latency.Take(1000, 1000);
    latency.Take(2000, 1000);
    EXPECT_DOUBLE_EQ(latency.Value().value(), 900.0 / 1900);
    for (int i = 0; i < 100; ++i) {
        latency.Take(2000, 1000);
    }
    EXPECT_FALSE(latency.Value());
}

}  // namespace
}  // namespace qel::test
