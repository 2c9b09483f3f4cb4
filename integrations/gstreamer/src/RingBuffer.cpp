#include "RingBuffer.h"

#include <cstring>

#include "CaptureTime.h"

namespace qel {
namespace {

/// A packet that a memory stands for.
struct HeldPacket {
    std::shared_ptr<StreamReader> reader;
    InOrderRelease::Ticket ticket;
};

void HandOn(StreamReader& reader, InOrderRelease::Ticket ticket) {
    if (!reader.HandOn(ticket)) {
        g_warning("ring %s: its counters are inconsistent", reader.Options().name.c_str());
    }
}

void HandOnHeld(gpointer data) {
    const std::unique_ptr<HeldPacket> held(static_cast<HeldPacket*>(data));
    HandOn(*held->reader, held->ticket);
}

/// Flags that tell of the frame, not of the object that holds it in this process.
guint TravellingFlags(guint flags) {
    constexpr guint kOfTheObject = static_cast<guint>(GST_MINI_OBJECT_FLAG_LAST) - 1U;
    return flags & ~(kOfTheObject | static_cast<guint>(GST_BUFFER_FLAG_TAG_MEMORY));
}

}  // namespace

GstBuffer* WrapPacket(const std::shared_ptr<StreamReader>& reader, const ReceivedPacket& received,
                      bool writable) {
    const ByteSpan& data = received.packet.data;
    GstBuffer* const buffer = gst_buffer_new();
    if (data.empty()) {
        HandOn(*reader, received.ticket);
        return buffer;
    }
    auto held = std::make_unique<HeldPacket>(HeldPacket{reader, received.ticket});
    const auto flags = writable ? GstMemoryFlags(0) : GST_MEMORY_FLAG_READONLY;
    gst_buffer_append_memory(buffer,
                             gst_memory_new_wrapped(flags, data.data(), data.size(), 0, data.size(),
                                                    held.release(), HandOnHeld));
    return buffer;
}

GstBuffer* CopyPacket(StreamReader& reader, const ReceivedPacket& received) {
    const ByteSpan& data = received.packet.data;
    GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, data.size(), nullptr);
    gst_buffer_fill(buffer, 0, data.data(), data.size());
    HandOn(reader, received.ticket);
    return buffer;
}

void Describe(GstBuffer* buffer, const PacketHeader& header,
              const std::optional<ControlHead>& details) {
    const std::int64_t pts = header.pts;  // the header is packed
    GST_BUFFER_PTS(buffer) = pts < 0 ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(pts);
    guint flags = header.key ? 0U : static_cast<guint>(GST_BUFFER_FLAG_DELTA_UNIT);
    if (details) {
        GST_BUFFER_DTS(buffer) = details->dts;
        GST_BUFFER_DURATION(buffer) = details->duration;
        GST_BUFFER_OFFSET(buffer) = details->offset;
        GST_BUFFER_OFFSET_END(buffer) = details->offsetEnd;
        flags = TravellingFlags(details->flags);
    }
    GST_BUFFER_FLAG_SET(buffer, flags);
    AddCaptureTime(buffer, header);
}

void Describe(ControlHead& head, GstBuffer* buffer) {
    head.dts = GST_BUFFER_DTS(buffer);
    head.duration = GST_BUFFER_DURATION(buffer);
    head.offset = GST_BUFFER_OFFSET(buffer);
    head.offsetEnd = GST_BUFFER_OFFSET_END(buffer);
    head.flags = TravellingFlags(GST_BUFFER_FLAGS(buffer));
    const bool fits = head.duration <= G_MAXUINT32;
    head.control.ptsDuration = fits ? static_cast<std::uint32_t>(head.duration) : 0;
}

}  // namespace qel
