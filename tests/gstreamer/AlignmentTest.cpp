// Where payloads lie: samples at addresses that code which works on them may insist on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Elements.h"
#include "PayloadAlignment.h"
#include "StreamName.h"
#include "Worker.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 10000;
constexpr std::uint64_t kHeader = 26;
constexpr const char* kEncoded = "video/x-h264, stream-format=(string)byte-stream";
constexpr const char* kAudio =
    "audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)48000, "
    "channels=(int)2";
constexpr const char* kVideo =
    "video/x-raw, format=(string)GRAY8, width=(int)7, height=(int)5, framerate=(fraction)25/1";

/// Bytes that differ with `number` and from place to place.
std::string Content(std::size_t size, GstClockTime number) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>(i * 7 + number);
    }
    return content;
}

bool IsAligned(const BufferHandle& buffer) {
    GstMapInfo map;
    EXPECT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
    const auto address = reinterpret_cast<std::uintptr_t>(map.data);
    gst_buffer_unmap(buffer.get(), &map);
    return address % kPayloadAlignment == 0;
}

class Alignment : public testing::Test {
protected:
    void Open(const char* caps, Properties properties = {}) {
        properties.emplace_back("size", std::to_string(kSize));
        sink_ = std::make_unique<Sink>(name_.Name(), properties, caps);
        source_ = std::make_unique<Source>(name_.Name());
        source_->Play();
    }
    GstFlowReturn Push(std::size_t size, GstClockTime pts) {
        return sink_->Push(MakeBuffer({Content(size, pts), pts}));
    }
    /// Sends a buffer through; true if it lies as samples should.
    bool SendThrough(std::size_t size, GstClockTime pts) {
        EXPECT_EQ(Push(size, pts), GST_FLOW_OK);
        const BufferHandle buffer = source_->Pull();
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), pts);
        EXPECT_TRUE(ContentOf(buffer) == Content(size, pts)) << size << " bytes";
        return IsAligned(buffer);
    }
    void ExpectNoCopies() const {
        EXPECT_EQ(sink_->Figure("copies"), 0U);
        EXPECT_EQ(source_->Figure("copies"), 0U);
    }

    UniqueStreamName name_;
    std::unique_ptr<Sink> sink_;
    std::unique_ptr<Source> source_;
    Worker worker_;
};

class SamplesAlignment : public Alignment, public testing::WithParamInterface<const char*> {};

TEST_P(SamplesAlignment, HoldsForEverySizeRoundTheRingAndRound) {
    Open(GetParam());
    GstClockTime pts = 0;
    for (int lap = 0; lap < 8; ++lap) {
        for (const std::size_t size : {1U, 35U, 63U, 64U, 65U, 777U, 1001U, 3333U, 4999U, 5000U}) {
            EXPECT_TRUE(SendThrough(size, ++pts)) << size << " bytes in lap " << lap;
        }
    }
    ExpectNoCopies();
    EXPECT_EQ(source_->Figure("packets"), pts);
    EXPECT_GT(source_->Figure("fillers"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Kinds, SamplesAlignment,
                         testing::Values(kAudio, kVideo, "other/tensors, format=(string)flexible"));

TEST_F(Alignment, HoldsForABufferOfManyMemories) {
    Open(kAudio);
    for (GstClockTime pts = 0; pts < 40; ++pts) {
        BufferHandle buffer = MakeBuffer({Content(501, pts), pts});
        gst_buffer_append_memory(buffer.get(),
                                 gst_buffer_get_memory(MakeBuffer({"the rest"}).get(), 0));
        ASSERT_EQ(sink_->Push(std::move(buffer)), GST_FLOW_OK);
        const BufferHandle found = source_->Pull();
        EXPECT_TRUE(ContentOf(found) == Content(501, pts) + "the rest");
        EXPECT_TRUE(IsAligned(found));
    }
    ExpectNoCopies();
}

TEST_F(Alignment, CostsEncodedMediaNothing) {
    Open(kEncoded);
    constexpr std::size_t kLength = 1001;
    constexpr auto kInALap = kSize / (kHeader + kLength);
    GstClockTime pts = 0;
    while (pts < kInALap) {
        (void)SendThrough(kLength, pts++);
    }
    EXPECT_EQ(source_->Figure("fillers"), 0U);
    (void)SendThrough(kLength, pts);
    EXPECT_EQ(source_->Figure("fillers"), 1U) << "at the ring's end";
}

TEST_F(Alignment, GoesWithTheCaps) {
    Open(kEncoded);
    (void)SendThrough(5, 1);
    EXPECT_EQ(source_->Figure("fillers"), 0U);
    sink_->SetCaps(kAudio);
    EXPECT_TRUE(SendThrough(5, 2));
    EXPECT_EQ(source_->Figure("fillers"), 1U);
    sink_->SetCaps(kEncoded);
    EXPECT_FALSE(SendThrough(5, 3));
    EXPECT_EQ(source_->Figure("fillers"), 1U);
}

TEST_F(Alignment, IsGivenUpForBuffersOfMoreThanHalfTheRingWhichPassIntact) {
    Open(kAudio);
    EXPECT_FALSE(SendThrough(kSize / 2 + 1, 1));
    EXPECT_EQ(source_->Figure("fillers"), 0U);
    GstClockTime pts = 2;
    for (const std::size_t size : {5001U, 7000U, 5U, 6001U, 5U}) {
        const bool isAligned = SendThrough(size, pts++);
        EXPECT_TRUE(isAligned || size > kSize / 2) << size;
    }
    ExpectNoCopies();
}

TEST_F(Alignment, LetsTheStreamFlowUnderTheTightestPacketLimit) {
    constexpr GstClockTime kCount = 40;
    Open(kVideo, {{"max-frames", "1"}});
    auto pushed = worker_.Start([this] {
        for (GstClockTime pts = 0; pts < kCount; ++pts) {
            if (Push(1001, pts) != GST_FLOW_OK) {
                return false;
            }
        }
        return true;
    });
    for (GstClockTime pts = 0; pts < kCount; ++pts) {
        const BufferHandle buffer = source_->Pull();
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), pts);
        EXPECT_TRUE(ContentOf(buffer) == Content(1001, pts));
        EXPECT_TRUE(IsAligned(buffer));
    }
    EXPECT_TRUE(pushed.get());
    EXPECT_EQ(sink_->Figure("dropped"), 0U);
}

}  // namespace
}  // namespace qel::test
