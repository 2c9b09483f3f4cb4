#include <gtest/gtest.h>

#include <limits>

#include "SegmentText.h"

namespace qel::test {
namespace {

GstSegment TimeSegment() {
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    return segment;
}

void ExpectSame(const GstSegment& a, const GstSegment& b) {
    EXPECT_TRUE(gst_segment_is_equal(&a, &b) != FALSE) << TextOf(a) << '\n' << TextOf(b);
}

TEST(SegmentText, ComesOutAsItWentIn) {
    GstSegment segment = TimeSegment();
    ExpectSame(*SegmentFromText(TextOf(segment)), segment);
    segment.flags = static_cast<GstSegmentFlags>(GST_SEGMENT_FLAG_RESET | GST_SEGMENT_FLAG_SKIP);
    segment.rate = -1.0 / 3;
    segment.applied_rate = 0.1;
    segment.base = 1;
    segment.offset = 1ULL << 62U;
    segment.start = 3;
    segment.stop = 1ULL << 63U;
    segment.time = 5;
    segment.position = 6;
    segment.duration = 7;
    ExpectSame(*SegmentFromText(TextOf(segment)), segment);
}

TEST(SegmentText, ForgedTextIsNone) {
    for (const char* const text : {"", "\n", "segment", "segment, rate=(double)1;", "x, y=;",
                                   "\xff", "segment, rate=(string)fast;"}) {
        EXPECT_FALSE(SegmentFromText(text)) << text;
    }
}

TEST(SegmentText, EveryFieldMustBeThere) {
    const std::string text = TextOf(TimeSegment());
    for (const std::string field : {"flags", "rate", "applied-rate", "base", "offset", "start",
                                    "stop", "time", "position", "duration"}) {
        std::string other = text;
        const std::size_t place = other.find(", " + field + "=");
        ASSERT_NE(place, std::string::npos) << field;
        other.replace(place + 2, 1, "X");
        EXPECT_FALSE(SegmentFromText(other)) << other;
    }
}

struct Unsound {
    const char* name;
    void (*spoil)(GstSegment&);
};

class UnsoundSegment : public testing::TestWithParam<Unsound> {};

TEST_P(UnsoundSegment, IsNone) {
    GstSegment segment = TimeSegment();
    GetParam().spoil(segment);
    EXPECT_FALSE(SegmentFromText(TextOf(segment))) << TextOf(segment);
}

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Fields, UnsoundSegment,
    testing::Values(Unsound{"rate0", [](GstSegment& s) { s.rate = 0; }},
                    Unsound{"rateInfinite", [](GstSegment& s) { s.rate = kInfinity; }},
                    Unsound{"rateNan", [](GstSegment& s) { s.rate = kNan; }},
                    Unsound{"applied0", [](GstSegment& s) { s.applied_rate = 0; }},
                    Unsound{"appliedInfinite", [](GstSegment& s) { s.applied_rate = -kInfinity; }},
                    Unsound{"backwardWithoutStop", [](GstSegment& s) { s.rate = -1; }},
                    Unsound{"offsetBehindStop",
                            [](GstSegment& s) {
                                s.start = 2;
                                s.stop = 4;
                                s.offset = 3;
                            }},
                    Unsound{"offsetBehindAllTime",
                            [](GstSegment& s) {
                                s.start = 2;
                                s.offset = G_MAXUINT64 - 1;
                            }},
                    Unsound{"noStart", [](GstSegment& s) { s.start = GST_CLOCK_TIME_NONE; }},
                    Unsound{"stopAheadOfStart",
                            [](GstSegment& s) {
                                s.start = 2;
                                s.stop = 1;
                            }}),
    [](const auto& row) { return row.param.name; });

struct AlignRow {
    const char* name;
    double rate;
    GstClockTime base, start, stop, pts;
    GstClockTimeDiff now;
};

class AlignedSegmentTest : public testing::TestWithParam<AlignRow> {
protected:
    static GstSegment Make(const AlignRow& row) {
        GstSegment segment = TimeSegment();
        segment.rate = row.rate;
        segment.base = row.base;
        segment.start = row.start;
        segment.stop = row.stop;
        segment.time = 12345;
        segment.position = row.start;
        return segment;
    }
};

TEST_P(AlignedSegmentTest, RunningTimeOfTheBufferIsNow) {
    const AlignRow& row = GetParam();
    const GstSegment aligned = AlignedSegment(Make(row), row.pts, row.now);
    guint64 running = 0;
    const int sign = gst_segment_to_running_time_full(&aligned, GST_FORMAT_TIME, row.pts, &running);
    EXPECT_EQ(sign * static_cast<GstClockTimeDiff>(running), row.now);
}

TEST_P(AlignedSegmentTest, TimeStampsAndStreamTimeStay) {
    const AlignRow& row = GetParam();
    const GstSegment before = Make(row);
    const GstSegment aligned = AlignedSegment(before, row.pts, row.now);
    EXPECT_EQ(aligned.start, before.start);
    EXPECT_EQ(aligned.stop, before.stop);
    EXPECT_EQ(aligned.rate, before.rate);
    EXPECT_EQ(gst_segment_to_stream_time(&aligned, GST_FORMAT_TIME, row.pts),
              gst_segment_to_stream_time(&before, GST_FORMAT_TIME, row.pts));
}

constexpr std::int64_t kSecond = 1000000000;
constexpr GstClockTime kOpen = GST_CLOCK_TIME_NONE;

INSTANTIATE_TEST_SUITE_P(
    Rows, AlignedSegmentTest,
    testing::Values(
        AlignRow{"later", 1, 0, 0, kOpen, 3 * kSecond, 10 * kSecond},
        AlignRow{"earlier", 1, 0, 0, kOpen, 10 * kSecond, 3 * kSecond},
        AlignRow{"sameTime", 1, 0, 0, kOpen, 3 * kSecond, 3 * kSecond},
        AlignRow{"atZero", 1, 0, 0, kOpen, 10 * kSecond, 0},
        AlignRow{"withBaseEarlier", 1, 20 * kSecond, 5 * kSecond, kOpen, 6 * kSecond, 3 * kSecond},
        AlignRow{"withBaseLater", 1, 20 * kSecond, 5 * kSecond, kOpen, 6 * kSecond, 30 * kSecond},
        AlignRow{"fastEarlier", 2, 0, 0, 100 * kSecond, 20 * kSecond, 3 * kSecond},
        AlignRow{"fastLater", 2, 0, 0, 100 * kSecond, 20 * kSecond, 30 * kSecond},
        AlignRow{"slowEarlier", 0.5, 0, 0, 100 * kSecond, 20 * kSecond, 3 * kSecond},
        AlignRow{"backwardEarlier", -1, 0, 0, 100 * kSecond, 20 * kSecond, 3 * kSecond},
        AlignRow{"backwardLater", -2, 0, 0, 100 * kSecond, 20 * kSecond, 50 * kSecond},
        AlignRow{"backwardWithBase", -1, 1000 * kSecond, 0, 100 * kSecond, 100 * kSecond, kSecond},
        AlignRow{"aheadOfTime", 1, 0, 0, 100 * kSecond, 20 * kSecond, -3 * kSecond},
        AlignRow{"withBaseAheadOfTime", 1, 2 * kSecond, 0, kOpen, 20 * kSecond, -3 * kSecond},
        AlignRow{"backwardAheadOfTime", -1, 0, 0, 100 * kSecond, 50 * kSecond, -3 * kSecond},
        AlignRow{"farAway", 1, 0, 0, kOpen, 40 * 365 * 24 * 3600 * kSecond, 3 * kSecond}),
    [](const auto& row) { return row.param.name; });

TEST(AlignedSegment, BufferAheadOfTheSegmentIsPlacedTooSoThatItsStartComesLater) {
    GstSegment segment = TimeSegment();
    segment.start = 10 * kSecond;
    segment.stop = 20 * kSecond;
    const GstSegment aligned = AlignedSegment(segment, 9 * kSecond, 50 * kSecond);
    EXPECT_EQ(gst_segment_to_running_time(&aligned, GST_FORMAT_TIME, 10 * kSecond), 51 * kSecond);
}

TEST(AlignedSegment, BufferBehindTheSegmentIsPlacedToo) {
    GstSegment segment = TimeSegment();
    segment.stop = 20 * kSecond;
    const GstSegment aligned = AlignedSegment(segment, 21 * kSecond, 50 * kSecond);
    EXPECT_EQ(gst_segment_to_running_time(&aligned, GST_FORMAT_TIME, 20 * kSecond), 49 * kSecond);
}

TEST(AlignedSegment, NothingIsMovedOutOfTheSegment) {
    for (const double rate : {1.0, -1.0}) {
        GstSegment segment = TimeSegment();
        segment.rate = rate;
        segment.stop = 20 * kSecond;
        const GstSegment aligned = AlignedSegment(segment, 10 * kSecond, -3600 * kSecond);
        EXPECT_EQ(aligned.offset, 20 * kSecond);
    }
}

TEST(AlignedSegment, AnyNumbersAreTaken) {
    for (const double rate : {1.0, -1.0, 1e-300, 1e300, -1e300}) {
        for (const guint64 base : {guint64{0}, G_MAXUINT64 - 1, guint64{1} << 63U}) {
            for (const GstClockTime pts : {guint64{0}, guint64{1} << 63U, G_MAXUINT64 - 1}) {
                GstSegment segment = TimeSegment();
                segment.rate = rate;
                segment.base = base;
                segment.stop = rate < 0 ? G_MAXUINT64 - 1 : GST_CLOCK_TIME_NONE;
                for (const GstClockTimeDiff now : {gint64{0}, gint64{1} << 40U, -kSecond}) {
                    EXPECT_EQ(AlignedSegment(segment, pts, now).rate, rate);
                }
            }
        }
    }
}

}  // namespace
}  // namespace qel::test
