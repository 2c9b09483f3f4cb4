#include <fmt/format.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "ElementHandles.h"
#include "FileSource.h"
#include "GstHandles.h"
#include "Matroska.h"
#include "MediaPipeline.h"
#include "PacketFileReader.h"

namespace qel {
namespace {

CapsHandle ParsedCaps(const std::string& text) {
    CapsHandle caps(gst_caps_from_string(text.c_str()));
    if (!caps || gst_caps_is_fixed(caps.get()) == FALSE) {
        throw std::runtime_error("these are no caps of a stream: " + text);
    }
    return caps;
}

/// Matroska takes these in one form only.
std::string ParserFor(const GstCaps* caps) {
    const GstStructure* const format = gst_caps_get_structure(caps, 0);
    const std::string name = gst_structure_get_name(format);
    const gchar* const form = gst_structure_get_string(format, "stream-format");
    const bool isByteStream = form != nullptr && std::strcmp(form, "byte-stream") == 0;
    if (isByteStream && name == "video/x-h264") {
        return "h264parse ! ";
    }
    return isByteStream && name == "video/x-h265" ? "h265parse ! " : "";
}

/// Of raw pictures and of sound each can be shown without those before it.
bool BeginsWithKeyFrame(const GstCaps* caps) {
    const std::string name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
    return name.rfind("video/", 0) == 0 && name != "video/x-raw";
}

/// Asks for a new cluster ahead of each buffer.
GstPadProbeReturn BeginCluster(GstPad* pad, GstPadProbeInfo* /*info*/, gpointer /*unused*/) {
    (void)gst_pad_push_event(
        pad, gst_video_event_new_downstream_force_key_unit(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                                           GST_CLOCK_TIME_NONE, TRUE, 0));
    return GST_PAD_PROBE_OK;
}

/// Times are kept to the nanosecond. What a time may differ from its cluster's has 16 bits, so
/// every frame has a cluster of its own.
std::string Description(const GstCaps* caps) {
    return fmt::format(
        "appsrc name=in format=time block=true max-bytes=16777216 ! {}"
        "identity name=last silent=true ! matroskamux timecodescale=1 ! "
        "fdsink fd={} sync=false",
        ParserFor(caps), STDOUT_FILENO);
}

class MuxPipeline {
public:
    explicit MuxPipeline(const std::string& capsText)
        : caps_(ParsedCaps(capsText)),
          awaitsKeyFrame_(BeginsWithKeyFrame(caps_.get())),
          hasDeltas_(awaitsKeyFrame_),
          pipeline_(Description(caps_.get())) {
        gst_app_src_set_caps(Input(), caps_.get());
        const PadHandle output(gst_element_get_static_pad(pipeline_.Get("last"), "src"));
        (void)gst_pad_add_probe(output.get(), GST_PAD_PROBE_TYPE_BUFFER, BeginCluster, nullptr,
                                nullptr);
        pipeline_.Play();
    }

    /// @throws std::runtime_error when the pipeline has failed
    void Push(const PacketFileReader::Entry& entry, bool arrivalTimes) {
        awaitsKeyFrame_ = awaitsKeyFrame_ && !entry.header.key;
        if (awaitsKeyFrame_) {
            ++leftOut_;
            return;
        }
        GstBuffer* const buffer = gst_buffer_new_memdup(entry.payload.data(), entry.payload.size());
        GST_BUFFER_PTS(buffer) = arrivalTimes || entry.header.pts < 0
                                     ? entry.time
                                     : static_cast<GstClockTime>(entry.header.pts);
        if (hasDeltas_ && !entry.header.key) {
            GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        }
        const bool isTaken = gst_app_src_push_buffer(Input(), buffer) == GST_FLOW_OK;
        pipeline_.RequireNoError();
        if (!isTaken) {
            throw std::runtime_error("the file takes no more");
        }
    }

    /// Packets that no player could have shown: they came ahead of the first key frame.
    [[nodiscard]] std::uint64_t LeftOut() const noexcept { return leftOut_; }

    void Finish() {
        (void)gst_app_src_end_of_stream(Input());
        pipeline_.WaitForEnd();
    }

private:
    [[nodiscard]] GstAppSrc* Input() const { return GST_APP_SRC(pipeline_.Get("in")); }

    CapsHandle caps_;
    bool awaitsKeyFrame_;
    bool hasDeltas_;
    std::uint64_t leftOut_ = 0;
    MediaPipeline pipeline_;
};

}  // namespace

void RequireStreamCaps(const std::string& caps) {
    (void)ParsedCaps(caps);
}

void Mux(const std::string& caps, bool arrivalTimes) {
    FileSource source(STDIN_FILENO, "standard input", [] { return false; });
    PacketFileReader reader([&](const ByteSpan& buffer) { return source.Read(buffer); },
                            "standard input");
    MuxPipeline pipeline(caps);
    while (const auto entry = reader.Next()) {
        if (entry->kind == PacketFileKind::Packet) {
            pipeline.Push(*entry, arrivalTimes);
        }
    }
    pipeline.Finish();
    if (pipeline.LeftOut() > 0) {
        (void)std::fprintf(stderr,
                           "qev-matroska: left out %llu packets ahead of the first key frame\n",
                           static_cast<unsigned long long>(pipeline.LeftOut()));
    }
}

}  // namespace qel
