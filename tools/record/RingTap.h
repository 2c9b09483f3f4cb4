#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ByteSpan.h"
#include "LapMarks.h"
#include "PacketHeader.h"
#include "RingFile.h"

namespace qel {

/// What a look at the ring gave.
enum class TapOutcome {
    Packet,   ///< a packet of content or an end mark, as the writer put it in
    Nothing,  ///< none at present
    Overrun,  ///< packets may have been missed here; how many cannot be known
};

struct [[nodiscard]] TapResult {
    TapOutcome outcome = TapOutcome::Nothing;
    PacketHeader header;
    ByteSpan payload;  ///< a copy; valid until the next look
};

/// Follows a ring's writer without being a node: reads the object, takes nothing, holds up nobody
/// and changes nothing. So the writer may overwrite what is being copied. What is delivered is
/// nevertheless always a packet exactly as the writer wrote it, each once and in order; where
/// packets may be missing, `Overrun` is delivered in their place.
///
/// What the writer does, in this order: it stores a record, head first, at its index `wIdx[0]`;
/// then it stores the index behind it. (Of a packet that is made in place the head is a filler's at
/// first, over all the room that was reserved. Of such a packet, and of a filler at the end of the
/// data area, the index passes the header first.) So everything from the start of the data area up
/// to the index is complete, but for the header of a record whose end the index has not passed; a
/// record that is being written begins at the index, and none runs over the end. A lap is what is
/// written from offset 0 to where the index goes back there.
///
/// The index does not tell one lap from another. What does is what stands in the ring:
///  1. Whatever a lap overwrites, it has overwritten the head of the record at the ring's start
///     before. While that head, the lap's stamp, is unchanged, all that was loaded or copied after
///     the stamp was first seen belongs to this lap; so bytes below the index are copied first, and
///     delivered if the stamp is unchanged afterwards.
///  2. A lap overwrites from the start on without a gap. So when a lap has begun, the rest of the
///     one before is still there as long as the head of a record ahead of that rest, a mark, is,
///     and the record that is being written ends ahead of the rest. How far that goes its head
///     tells, which is stored first; when the index has moved meanwhile, that does. (Who fills
///     reserved room from its end, and then uses less of it, escapes this: a packet may be torn.)
///  3. A whole lap may have gone by between two looks. That lap ended at a filler, or it would have
///     overwritten all marks; the filler was put there for the first record of the lap that is
///     seen, which found no room: it would have run over the end, or left less than a header ahead
///     of it. So if a mark stands that is further than that record and a header from the ring's
///     end, there was no such lap. Of room reserved in place the packet may have taken less, so a
///     mark ahead of the ring's last quarter is asked if there is one. (Who gives up a record for
///     which a filler was made, or takes much less than was reserved, may escape this: a short lap
///     is missed unsaid then, but nothing is torn. Where a lap is one record no mark is left to
///     ask: an overrun is said ahead of each.)
/// Ahead of the first lap that is read, what stood all over the ring serves as marks; of those, a
/// quarter must stand. A first lap on a fresh ring whose payloads are zeros can be missed unseen.
/// Heads are told apart by time stamp and time; by the first bytes of the payload as well if they
/// have neither, or as soon as two packets in succession share them. Of a ring whose records are
/// all alike in these no missed lap can be seen, and a payload may then be copied half overwritten.
///
/// Pairs: the writer's store of `wIdx[0]` publishes the record to the load here. That the head of a
/// record is stored ahead of its payload, and what is copied here is read ahead of the stamp or the
/// mark that is looked at next, is kept by fences here and, there, by the order of stores; where a
/// processor has none, the system call between the two looks is longer than stores stay unseen.
///
/// Anything may be forged: every offset and length is checked, and a look ends.
///
/// A later node that changes payloads in place may do so while they are copied.
///
/// Thread use: one thread at a time.
class RingTap {
public:
    enum class Start {
        Now,     ///< with the packet that is written next
        Lap,     ///< with the first packet of the lap that the writer is in
        Oldest,  ///< with the oldest packet that the last node has not read
    };

    RingTap(RingFile ring, Start start);

    /// The next packet, or what there is instead. Never waits.
    TapResult TryNext();

    /// Bytes of records that the tap has passed, fillers included.
    [[nodiscard]] std::uint64_t BytesPassed() const noexcept { return bytesPassed_; }

    [[nodiscard]] const RingFile& Ring() const noexcept { return ring_; }

private:
    enum class Look { Data, Nothing, Overrun };

    [[nodiscard]] std::optional<std::uint64_t> WriteIndex() const noexcept;
    void TryBegin();
    [[nodiscard]] std::uint64_t NoteLapUpTo(std::uint64_t index);
    [[nodiscard]] bool BeginAtOldest(std::uint64_t index);
    void BeginAt(std::uint64_t place, const LapStamp& stamp);
    [[nodiscard]] Look LookAgain();
    [[nodiscard]] Look CopyLap(std::uint64_t limit);
    [[nodiscard]] Look CopyRestOfLap();
    [[nodiscard]] Look FindNextLap(const LapStamp& now);
    [[nodiscard]] bool NoLapWentBy(const LapStamp& now) const;
    [[nodiscard]] Look Missed();
    [[nodiscard]] bool Copy(std::uint64_t limit);
    [[nodiscard]] std::optional<std::uint64_t> EndOfWriting() const noexcept;
    [[nodiscard]] std::optional<TapResult> Parse();
    [[nodiscard]] bool HasMemoryFor(std::uint64_t size) const;
    [[nodiscard]] TapResult Damaged();

    RingFile ring_;
    Start start_;
    bool begun_ = false;

    LapStamp stamp_;  ///< of the present lap
    LapMarks marks_;
    std::uint64_t position_ = 0;  ///< where the next record of the present lap begins
    bool lapDone_ = false;        ///< the present lap has been read to its end
    bool missed_ = false;         ///< and the next need not be the one behind it

    std::vector<unsigned char> bytes_;  ///< copied from `position_ - parsed_` on, and found intact
    std::size_t copied_ = 0;
    std::size_t parsed_ = 0;
    std::uint64_t limit_ = 0;  ///< where the intact bytes end in the ring; not all need be copied
    std::uint64_t want_;       ///< bytes to copy at once
    std::uint64_t bytesPassed_ = 0;
};

}  // namespace qel
