#pragma once

#include <gst/gst.h>

#include "PacketHeader.h"

namespace qel {

/// Caps of the reference time stamp that holds a buffer's capture time: ns since 1970, UTC.
/// @return owned by the plugin
[[nodiscard]] GstCaps* CaptureTimeCaps();

/// Notes in a packet's header when the buffer was captured: as its reference time stamp says, or
/// else now.
void SetCaptureTime(PacketHeader& header, GstBuffer* buffer);

/// Adds the capture time to a buffer made from a packet; not for headers without one.
void AddCaptureTime(GstBuffer* buffer, const PacketHeader& header);

/// How long ago a packet was captured; 0 if its header does not say, or says what cannot be.
[[nodiscard]] GstClockTimeDiff AgeOf(const PacketHeader& header);

}  // namespace qel
