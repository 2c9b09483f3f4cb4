#include <gtest/gtest.h>

#include "CaptureTime.h"
#include "GstHandles.h"

namespace qel::test {
namespace {

std::uint64_t Microseconds(const PacketHeader& header) {
    return std::uint64_t{header.timestampSec} * 1000000 + header.timestampUsec;
}

TEST(CaptureTime, IsThatOfTheBuffersReferenceTimeStampInWholeMicroseconds) {
    const BufferHandle buffer(gst_buffer_new());
    gst_buffer_add_reference_timestamp_meta(buffer.get(), CaptureTimeCaps(), 1234567890987654321ULL,
                                            GST_CLOCK_TIME_NONE);
    PacketHeader header;
    SetCaptureTime(header, buffer.get());
    const std::uint32_t seconds = header.timestampSec;
    const std::uint32_t microseconds = header.timestampUsec;
    EXPECT_EQ(seconds, 1234567890U);
    EXPECT_EQ(microseconds, 987654U);
}

TEST(CaptureTime, IsNowForABufferWithoutOneOrWithAnotherReference) {
    const CapsHandle other(gst_caps_new_empty_simple("timestamp/x-ntp"));
    for (const bool hasOther : {false, true}) {
        const BufferHandle buffer(gst_buffer_new());
        if (hasOther) {
            gst_buffer_add_reference_timestamp_meta(buffer.get(), other.get(), 5,
                                                    GST_CLOCK_TIME_NONE);
        }
        PacketHeader header;
        const auto before = static_cast<std::uint64_t>(g_get_real_time());
        SetCaptureTime(header, buffer.get());
        const auto after = static_cast<std::uint64_t>(g_get_real_time());
        EXPECT_LE(before, Microseconds(header));
        EXPECT_GE(after, Microseconds(header));
        const std::uint32_t microseconds = header.timestampUsec;
        EXPECT_LT(microseconds, 1000000U);
    }
}

TEST(CaptureTime, OfAPacketBecomesItsBuffersReferenceTimeStamp) {
    const BufferHandle buffer(gst_buffer_new());
    PacketHeader header;
    header.timestampSec = 4294967295U;
    header.timestampUsec = 999999;
    AddCaptureTime(buffer.get(), header);
    const auto* const meta = gst_buffer_get_reference_timestamp_meta(buffer.get(), nullptr);
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->timestamp, 4294967295999999000ULL);
    EXPECT_EQ(meta->duration, GST_CLOCK_TIME_NONE);
    EXPECT_EQ(std::string(TextHandle(gst_caps_to_string(meta->reference)).get()),
              "timestamp/x-unix");
}

TEST(CaptureTime, PacketWithoutOneGivesNone) {
    const BufferHandle buffer(gst_buffer_new());
    AddCaptureTime(buffer.get(), PacketHeader{});
    EXPECT_EQ(gst_buffer_get_reference_timestamp_meta(buffer.get(), nullptr), nullptr);
}

TEST(CaptureTime, OfAFractionOfTheFirstSecondIsOne) {
    const BufferHandle buffer(gst_buffer_new());
    PacketHeader header;
    header.timestampUsec = 1;
    AddCaptureTime(buffer.get(), header);
    const auto* const meta = gst_buffer_get_reference_timestamp_meta(buffer.get(), nullptr);
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->timestamp, 1000U);
}

TEST(Age, IsTheTimeSinceThePacketWasCaptured) {
    const auto before = g_get_real_time();
    PacketHeader header;
    header.timestampSec = static_cast<std::uint32_t>(before / G_USEC_PER_SEC - 10);
    const GstClockTimeDiff age = AgeOf(header);
    const auto after = g_get_real_time();
    const auto captured = GstClockTimeDiff{header.timestampSec} * G_USEC_PER_SEC;
    EXPECT_GE(age, (before - captured) * 1000);
    EXPECT_LE(age, (after - captured) * 1000);
}

TEST(Age, IsNoneOfAPacketThatDoesNotSayOrSaysWhatCannotBe) {
    const auto now = static_cast<std::uint32_t>(g_get_real_time() / G_USEC_PER_SEC);
    for (const std::uint32_t seconds : {0U, 1U, now - 3700, now + 3600, 4294967295U}) {
        PacketHeader header;
        header.timestampSec = seconds;
        EXPECT_EQ(AgeOf(header), 0) << seconds;
    }
}

}  // namespace
}  // namespace qel::test
