#include <gst/app/gstappsink.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>

#include "ElementHandles.h"
#include "Matroska.h"
#include "MediaPipeline.h"
#include "PacketFileWriter.h"

namespace qel {
namespace {

struct SampleUnref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
using SampleHandle = std::unique_ptr<GstSample, SampleUnref>;

bool WriteToOutput(const ByteSpan& data) {
    for (std::size_t done = 0; done < data.size();) {
        const ssize_t count = write(STDOUT_FILENO, data.data() + done, data.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            throw std::runtime_error(std::string("cannot write: ") + std::strerror(errno));
        }
    }
    return true;
}

/// Only the first track is taken.
void OnPad(GstElement* /*demuxer*/, GstPad* pad, gpointer sink) {
    GstPad* const input = gst_element_get_static_pad(GST_ELEMENT(sink), "sink");
    if (gst_pad_is_linked(input) != FALSE || gst_pad_link(pad, input) != GST_PAD_LINK_OK) {
        g_printerr("qev-matroska: the file has more than one track; only the first is taken\n");
    }
    gst_object_unref(input);
}

/// Arrival times are those at which packets would come from the file.
class ArrivalClock {
public:
    std::uint64_t TimeOf(const GstBuffer* buffer) {
        const GstClockTime time = GST_BUFFER_DTS_OR_PTS(buffer);
        if (GST_CLOCK_TIME_IS_VALID(time)) {
            first_ = first_.value_or(time);
            last_ = std::max(last_, time - std::min<GstClockTime>(time, *first_));
        }
        return last_;
    }

private:
    std::optional<GstClockTime> first_;
    std::uint64_t last_ = 0;
};

}  // namespace

void Demux(const std::string& path) {
    MediaPipeline pipeline(
        "filesrc name=file ! matroskademux name=demuxer "
        "appsink name=out sync=false enable-last-sample=false max-buffers=32");
    GstElement* const sink = pipeline.Get("out");
    g_object_set(pipeline.Get("file"), "location", path.c_str(), nullptr);
    (void)g_signal_connect(pipeline.Get("demuxer"), "pad-added", G_CALLBACK(OnPad), sink);
    pipeline.Play();

    PacketFileWriter writer(WriteToOutput);
    writer.Begin("", 0, 0);
    ArrivalClock clock;
    while (const SampleHandle sample{gst_app_sink_pull_sample(GST_APP_SINK(sink))}) {
        GstBuffer* const buffer = gst_sample_get_buffer(sample.get());
        const MappedBuffer mapped(buffer);
        if (!mapped.IsMapped()) {
            throw std::runtime_error("a buffer cannot be read");
        }
        PacketHeader header;
        header.length = mapped.Size();
        header.pts = GST_BUFFER_PTS_IS_VALID(buffer)
                         ? static_cast<std::int64_t>(GST_BUFFER_PTS(buffer))
                         : -1;
        header.key = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) == FALSE;
        (void)writer.Packet(clock.TimeOf(buffer), header,
                            {const_cast<guint8*>(mapped.Data()), mapped.Size()});
    }
    (void)writer.Flush();
    pipeline.RequireNoError();
}

}  // namespace qel
