#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "ByteSpan.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// What a record of the control ring tells.
enum class ControlKind : std::uint8_t {
    Frame,        ///< of the packet that follows on the ring: what its header cannot hold
    EndOfStream,  ///< of the end mark that follows on the ring
    Caps,         ///< text: the caps of all frames from here on
    Segment,      ///< text: their segment
    Tags,         ///< text: tags of the stream
    GlobalTags,   ///< text: tags of all that it belongs to
    Gap,          ///< no data between pts and pts + duration
    Custom,       ///< text: a custom event's structure
    State,        ///< text: a StreamState, for readers that have missed what it is made of
};
inline constexpr auto kLastControlKind = ControlKind::State;

/// Flags of a segment's record: running time begins again with it, as after a flush.
inline constexpr std::uint32_t kStartsAnew = 1;

/// Head of a record on the control ring; text may follow it to the record's end.
///
///   offset  width
///        0     88  the frame as CtlData tells it; timeStamp and startTick: the time stamp of the
///                  packet's header, seconds and microseconds
///       88      4  magic
///       92      4  serial of the caps that the frame has, see StreamState
///       96      8  presentation time stamp, as in the packet's header
///      104      8  decoding time stamp  |
///      112      8  duration             |  of the GstBuffer, in its units;
///      120      8  offset               |  all bits set: none
///      128      8  end offset           |
///      136      4  flags of the GstBuffer; of a segment: kStartsAnew or 0
///      140      1  kind
///      141      3  0
struct ControlHead {
    static constexpr std::uint32_t kMagic = 0x31766571;  // "qev1"

    SharedPacketBufferIF::CtlData control;
    std::uint32_t magic = kMagic;
    std::uint32_t serial = 0;
    std::int64_t pts = -1;
    std::uint64_t dts = 0;
    std::uint64_t duration = 0;
    std::uint64_t offset = 0;
    std::uint64_t offsetEnd = 0;
    std::uint32_t flags = 0;
    ControlKind kind = ControlKind::Frame;
    std::uint8_t reserved[3] = {};
};
static_assert(sizeof(SharedPacketBufferIF::CtlData) == 88);
static_assert(offsetof(ControlHead, magic) == 88);
static_assert(offsetof(ControlHead, serial) == 92);
static_assert(offsetof(ControlHead, pts) == 96);
static_assert(offsetof(ControlHead, dts) == 104);
static_assert(offsetof(ControlHead, duration) == 112);
static_assert(offsetof(ControlHead, offset) == 120);
static_assert(offsetof(ControlHead, offsetEnd) == 128);
static_assert(offsetof(ControlHead, flags) == 136);
static_assert(offsetof(ControlHead, kind) == 140);
static_assert(sizeof(ControlHead) == 144);

/// A record as read.
struct ControlRecord {
    ControlHead head;
    std::string text;

    /// True if the record goes with a packet on the ring; events stand by themselves.
    [[nodiscard]] bool IsOfPacket() const noexcept {
        return head.kind == ControlKind::Frame || head.kind == ControlKind::EndOfStream;
    }
};

/// Head for the record of `packet`, to be completed with what the packet's header does not say.
[[nodiscard]] ControlHead MakeFrameHead(const Packet& packet, std::uint64_t size) noexcept;

/// Head for an event; its text goes behind it.
[[nodiscard]] ControlHead MakeEventHead(ControlKind kind) noexcept;

/// The bytes of a head, as they go into the ring. They are those of `head`.
[[nodiscard]] ByteSpan BytesOf(ControlHead& head) noexcept;

/// Reads a record; nothing if the bytes are none.
[[nodiscard]] std::optional<ControlRecord> ParseControlRecord(const ByteSpan& bytes);

}  // namespace qel
