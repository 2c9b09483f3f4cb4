// Raw video whose planes do not lie where the caps tell.
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include "Elements.h"
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

class VideoLayout : public testing::TestWithParam<Layout> {};

TEST_P(VideoLayout, ArrivesAsTheCapsTell) {
    const UniqueStreamName name;
    Sink sink(name.Name(), {{"size", "100000"}}, kCaps);
    Source source(name.Name());
    ASSERT_EQ(sink.Push(MakeFrame(GetParam())), GST_FLOW_OK);
    const BufferHandle found = source.Play().Pull();
    ASSERT_TRUE(found);
    std::string expected;
    for (char pixel = 'A'; expected.size() < 36; ++pixel) {
        expected += pixel;
    }
    EXPECT_EQ(PixelsOf(found), expected);
    EXPECT_EQ(GST_BUFFER_PTS(found.get()), 7U);
    EXPECT_EQ(sink.Figure("copies"), GetParam().copies);
    EXPECT_EQ(source.Figure("copies"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Rows, VideoLayout,
                         testing::Values(Layout{"asTheCapsTell", 8, 0, 0},
                                         Layout{"otherStrides", 16, 0, 1},
                                         Layout{"otherOffsets", 8, 5, 1}, Layout{"both", 32, 3, 1}),
                         [](const auto& row) { return row.param.name; });

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
