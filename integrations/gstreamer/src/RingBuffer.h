#pragma once

#include <gst/gst.h>

#include <memory>
#include <optional>

#include "ControlRecord.h"
#include "StreamReader.h"

namespace qel {

/// A buffer whose memory is the packet's, in the ring. When the last reference to the memory goes
/// the packet is handed on. The memory keeps `reader`.
/// @param writable  false: whoever wants to write to it gets a copy
[[nodiscard]] GstBuffer* WrapPacket(const std::shared_ptr<StreamReader>& reader,
                                    const ReceivedPacket& received, bool writable);

/// A buffer with a copy of the packet, which is handed on at once.
[[nodiscard]] GstBuffer* CopyPacket(StreamReader& reader, const ReceivedPacket& received);

/// Gives a buffer the time stamps and flags of its packet.
/// @param details  none: only what the header says
void Describe(GstBuffer* buffer, const PacketHeader& header,
              const std::optional<ControlHead>& details);

/// Notes time stamps and flags of a buffer for its packet's control record.
void Describe(ControlHead& head, GstBuffer* buffer);

/// PTS of a packet without one.
inline constexpr std::int64_t kNoPts = -1;

}  // namespace qel
