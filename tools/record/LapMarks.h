#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "PacketHeader.h"
#include "RingFile.h"

namespace qel {

/// The header in `bytes`, of which there are kPacketHeaderSize at least; a forged flag becomes
/// true.
[[nodiscard]] PacketHeader HeaderOf(const unsigned char* bytes) noexcept;

/// Where the record with `header` at `offset` ends in a ring of `size` bytes; nothing if no writer
/// can have put it there.
[[nodiscard]] std::optional<std::uint64_t> EndOf(const PacketHeader& header, std::uint64_t offset,
                                                 std::uint64_t size) noexcept;

/// By what a record is told from others. Later nodes may change payloads in place, never headers.
enum class ToldBy {
    Header,   ///< and by the first bytes of its payload if it has neither a time nor a time stamp
    Payload,  ///< by its first bytes and the header: packets share their times
};

/// So many bytes of a record.
[[nodiscard]] std::size_t TellingBytes(const PacketHeader& header, ToldBy by) noexcept;

inline constexpr std::size_t kMostTellingBytes = 64;

/// Tells one lap of the writer round the ring from another: what stands at the ring's start, up to
/// and with the head of the first record that is no filler.
class LapStamp {
public:
    /// Matches no lap.
    LapStamp() = default;

    /// What stands there now; nothing if the object was cut.
    [[nodiscard]] static std::optional<LapStamp> Take(const RingFile& ring, ToldBy by) noexcept;

    /// True if `now`, taken later, shows the same lap.
    [[nodiscard]] bool Matches(const LapStamp& now) const noexcept;

    /// True if the first bytes of the payload are the same as well.
    [[nodiscard]] bool MatchesWholly(const LapStamp& now) const noexcept;

    /// From now on by more of what was taken.
    void TellByPayload() noexcept;

    /// Where the lap's first record that is no filler begins and ends.
    [[nodiscard]] std::uint64_t ContentAt() const noexcept { return contentAt_; }
    [[nodiscard]] std::uint64_t ContentEnd() const noexcept { return contentEnd_; }

    /// Bytes that the very first record takes.
    [[nodiscard]] std::uint64_t FirstRecord() const noexcept { return firstRecord_; }

private:
    static constexpr std::size_t kSize = 256;

    std::array<unsigned char, kSize> bytes_{};
    std::size_t available_ = 0;  ///< of the ring, in `bytes_`
    std::size_t used_ = 0;
    std::uint64_t contentAt_ = 0;
    std::uint64_t contentEnd_ = 0;
    std::uint64_t firstRecord_ = 0;
};

/// Heads of some of the records of a lap, as they were when they were read: one that is still there
/// shows that the writer has not come by since.
class LapMarks {
public:
    explicit LapMarks(std::uint64_t ringSize) noexcept : slice_(ringSize / kSlices + 1) {}

    void Clear() noexcept { marks_ = {}; }

    /// Takes what stands all over the ring at this moment, records or not.
    void TakeAll(const RingFile& ring) noexcept;

    /// Begins to note another lap; what was noted of the last one is used until it is replaced.
    void BeginLap() noexcept { ++lap_; }

    /// Notes the record of `size` bytes, header included, that was read at `offset`.
    void Note(std::uint64_t offset, const unsigned char* record, std::uint64_t size) noexcept;

    /// Looks at the headers of records that are to be noted, `size` bytes from the first one on.
    void LookAhead(const unsigned char* records, std::uint64_t size) noexcept;

    /// By payloads as soon as two packets in succession have been seen that share their times.
    [[nodiscard]] ToldBy By() const noexcept { return by_; }

    /// True if the last mark that begins at `from` or behind it, and at `to` or before it, is there
    /// and stands in the ring as it was noted.
    [[nodiscard]] bool LastStands(const RingFile& ring, std::uint64_t from,
                                  std::uint64_t to) const noexcept;

    /// True if the last mark there is of a record that was read.
    [[nodiscard]] bool HasReadOne(std::uint64_t from, std::uint64_t to) const noexcept;

    /// True if there is such a mark and it does not stand any more.
    [[nodiscard]] bool LastHasGone(const RingFile& ring, std::uint64_t from,
                                   std::uint64_t to) const noexcept;

private:
    static constexpr std::size_t kSlices = 64;
    static constexpr std::uint64_t kAtBegin = 0;  ///< the lap of marks that TakeAll has taken

    struct Mark {
        std::size_t length = 0;  ///< of `bytes`; 0: there is none
        std::uint64_t offset = 0;
        std::uint64_t lap = 0;
        std::array<unsigned char, kMostTellingBytes> bytes{};
    };

    /// What stood in the ring at the beginning may be alike all over, as the zeros of a fresh one
    /// are, and what is written may be as well: one mark that stands shows little then.
    [[nodiscard]] bool ManyOfBeginStand(const RingFile& ring, std::uint64_t from,
                                        std::uint64_t to) const noexcept;
    [[nodiscard]] const Mark* Last(std::uint64_t from, std::uint64_t to) const noexcept;
    [[nodiscard]] bool Stands(const RingFile& ring, const Mark& mark) const noexcept;

    std::uint64_t slice_;  ///< bytes of the ring that share a mark
    std::uint64_t lap_ = 1;
    std::array<Mark, kSlices> marks_;
    ToldBy by_ = ToldBy::Header;
    std::optional<PacketHeader> last_;  ///< of content, that was noted
};

}  // namespace qel
