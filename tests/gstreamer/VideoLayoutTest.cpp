// Raw video whose planes do not lie where the caps tell.
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include "Elements.h"
#include "PayloadAlignment.h"
#include "StreamName.h"

namespace qel::test {
namespace {

constexpr const char* kCaps =
    "video/x-raw, format=(string)I420, width=(int)6, height=(int)4, framerate=(fraction)25/1";

struct Layout {
    const char* name;
    int stride;       ///< of the luma plane; half of it for the others
    std::size_t gap;  ///< bytes ahead of each plane
    std::uint64_t copies;
};

/// A frame of 6x4 in the given layout, with gaps of '.'; the pixel's place in the frame is its
/// value.
BufferHandle MakeFrame(const Layout& layout) {
    int strides[] = {layout.stride, layout.stride / 2, layout.stride / 2, 0};
    const int widths[] = {6, 3, 3};
    const int heights[] = {4, 2, 2};
    gsize offsets[] = {0, 0, 0, 0};
    std::string content;
    char pixel = 'A';
    for (std::size_t plane = 0; plane < 3; ++plane) {
        content.append(layout.gap, '.');
        offsets[plane] = content.size();
        for (int row = 0; row < heights[plane]; ++row) {
            std::string line;
            for (int column = 0; column < widths[plane]; ++column) {
                line += pixel++;
            }
            line.resize(static_cast<std::size_t>(strides[plane]), '.');
            content += line;
        }
    }
    BufferHandle buffer = MakeBuffer({content, 7, true});
    gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_I420,
                                   6, 4, 3, offsets, strides);
    return buffer;
}

/// The pixels of a frame that MakeFrame has made.
std::string AllPixels() {
    std::string pixels;
    for (char pixel = 'A'; pixels.size() < 36; ++pixel) {
        pixels += pixel;
    }
    return pixels;
}

/// The pixels of a frame that lies as the caps tell.
std::string PixelsOf(const BufferHandle& buffer) {
    GstVideoInfo info;
    EXPECT_TRUE(gst_video_info_from_caps(&info, CapsHandle(gst_caps_from_string(kCaps)).get()));
    GstVideoFrame frame;
    EXPECT_TRUE(gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_READ));
    std::string pixels;
    for (guint plane = 0; plane < 3; ++plane) {
        for (int row = 0; row < (plane == 0 ? 4 : 2); ++row) {
            const auto* const line =
                static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane)) +
                row * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
            pixels.append(line, plane == 0 ? 6 : 3);
        }
    }
    gst_video_frame_unmap(&frame);
    return pixels;
}

void ExpectAligned(const BufferHandle& buffer) {
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(map.data) % kPayloadAlignment, 0U);
    gst_buffer_unmap(buffer.get(), &map);
}

class VideoLayout : public testing::TestWithParam<Layout> {};

TEST_P(VideoLayout, ArrivesAsTheCapsTell) {
    const UniqueStreamName name;
    Sink sink(name.Name(), {{"size", "100000"}}, kCaps);
    Source source(name.Name());
    ASSERT_EQ(sink.Push(MakeFrame(GetParam())), GST_FLOW_OK);
    const BufferHandle found = source.Play().Pull();
    ASSERT_TRUE(found);
    EXPECT_EQ(PixelsOf(found), AllPixels());
    EXPECT_EQ(GST_BUFFER_PTS(found.get()), 7U);
    EXPECT_EQ(sink.Figure("copies"), GetParam().copies);
    EXPECT_EQ(source.Figure("copies"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Rows, VideoLayout,
                         testing::Values(Layout{"asTheCapsTell", 8, 0, 0},
                                         Layout{"otherStrides", 16, 0, 1},
                                         Layout{"otherOffsets", 8, 5, 1}, Layout{"both", 32, 3, 1}),
                         [](const auto& row) { return row.param.name; });

TEST(VideoLayoutInTheRing, FramesAreMadeAlignedRoundTheRingAndRound) {
    constexpr Layout kLayout{"", 16, 3, 0};
    constexpr std::uint64_t kFrames = 500;  // of 48 bytes and what goes with them
    const UniqueStreamName name;
    // An aligned frame could end right at the ring's end, where none is made in place.
    Sink sink(name.Name(), {{"size", "4120"}}, kCaps);
    Source source(name.Name());
    source.Play();
    for (std::uint64_t frame = 0; frame < kFrames; ++frame) {
        ASSERT_EQ(sink.Push(MakeFrame(kLayout)), GST_FLOW_OK);
        const BufferHandle found = source.Pull();
        ASSERT_TRUE(found);
        ASSERT_EQ(PixelsOf(found), AllPixels()) << frame;
        ExpectAligned(found);
    }
    EXPECT_EQ(sink.Figure("copies"), kFrames);
    EXPECT_EQ(sink.Figure("dropped"), 0U);
    EXPECT_EQ(source.Figure("copies"), 0U);
}

/// Frames of grey; the pixel's place in the picture is its value.
struct Grey {
    int width;
    int height;

    [[nodiscard]] std::string Caps() const {
        return "video/x-raw, format=(string)GRAY8, width=(int)" + std::to_string(width) +
               ", height=(int)" + std::to_string(height) + ", framerate=(fraction)25/1";
    }
    [[nodiscard]] static char Pixel(int column, int row) {
        return static_cast<char>(3 * column + 7 * row);
    }
    /// A picture of this size with lines of `stride` bytes.
    [[nodiscard]] BufferHandle Frame(int stride) const {
        std::string content(static_cast<std::size_t>(stride * height), '.');
        for (int row = 0; row < height; ++row) {
            for (int column = 0; column < width; ++column) {
                content[static_cast<std::size_t>(row * stride + column)] = Pixel(column, row);
            }
        }
        BufferHandle buffer = MakeBuffer({content, 7, true});
        gsize offsets[] = {0, 0, 0, 0};
        int strides[] = {stride, 0, 0, 0};
        gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE,
                                       GST_VIDEO_FORMAT_GRAY8, static_cast<guint>(width),
                                       static_cast<guint>(height), 1, offsets, strides);
        return buffer;
    }
};

TEST(VideoLayoutInTheRing, OfALargerPictureThanTheCapsTellTheUpperLeftPartIsTaken) {
    const UniqueStreamName name;
    const Grey told{8, 4};
    Sink sink(name.Name(), {{"size", "100000"}}, told.Caps().c_str());
    Source source(name.Name());
    ASSERT_EQ(sink.Push(Grey{16, 6}.Frame(32)), GST_FLOW_OK);
    const std::string content = ContentOf(source.Play().Pull());
    ASSERT_EQ(content.size(), 32U);
    for (int place = 0; place < 32; ++place) {
        EXPECT_EQ(content[static_cast<std::size_t>(place)], Grey::Pixel(place % 8, place / 8));
    }
}

TEST(VideoLayoutInTheRing, OfASmallerPictureThanTheCapsTellThereIsNone) {
    const UniqueStreamName name;
    Sink sink(name.Name(), {{"size", "100000"}}, Grey{8, 4}.Caps().c_str());
    EXPECT_EQ(sink.Push(Grey{8, 3}.Frame(32)), GST_FLOW_ERROR);
    EXPECT_EQ(sink.AwaitError().text, "a buffer's memory cannot be read");
    EXPECT_EQ(sink.Figure("packets"), 0U);
}

TEST(VideoLayoutInTheRing, CriticalKeyFramesUseTheReserveWhateverTheirLayout) {
    for (const int stride : {64, 96}) {
        const UniqueStreamName name;
        const Grey grey{64, 16};
        Sink sink(name.Name(),
                  {{"size", "2300"}, {"wait-for-space", "false"}, {"critical-keyframes", "true"}},
                  grey.Caps().c_str());
        EXPECT_EQ(sink.Push(grey.Frame(64)), GST_FLOW_OK);
        EXPECT_EQ(sink.Push(grey.Frame(stride)), GST_FLOW_OK);
        EXPECT_EQ(sink.Figure("dropped"), 0U) << stride;
        EXPECT_EQ(sink.Figure("copies"), stride == 64 ? 0U : 1U);
        Source source(name.Name());
        const std::string first = ContentOf(source.Play().Pull());
        EXPECT_TRUE(ContentOf(source.Pull()) == first);
    }
}

TEST(VideoLayoutInTheRing, FramesOfHalfTheRingAreAlignedWhateverTheirLayout) {
    for (const int stride : {64, 96}) {
        const UniqueStreamName name;
        const Grey grey{64, 32};
        Sink sink(name.Name(), {{"size", "4096"}}, grey.Caps().c_str());
        Source source(name.Name());
        source.Play();
        for (int frame = 0; frame < 5; ++frame) {
            ASSERT_EQ(sink.Push(grey.Frame(stride)), GST_FLOW_OK);
            ExpectAligned(source.Pull());
        }
    }
}

TEST(VideoLayoutOfOthers, IsLeftAlone) {
    const UniqueStreamName name;
    Sink sink(name.Name(), {{"size", "100000"}});  // no raw video
    Source source(name.Name());
    BufferHandle frame = MakeFrame({"", 16, 5, 0});
    const std::string content = ContentOf(frame);
    ASSERT_EQ(sink.Push(std::move(frame)), GST_FLOW_OK);
    EXPECT_EQ(ContentOf(source.Play().Pull()), content);
    EXPECT_EQ(sink.Figure("copies"), 0U);
}

}  // namespace
}  // namespace qel::test
