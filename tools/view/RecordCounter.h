#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>

#include "PacketHeader.h"
#include "RingFields.h"
#include "RingFlow.h"

namespace qel {

/// Counts the packets that pass the nodes of a ring, by the headers that stand in it. Where there
/// are too many to look at each, or a header makes no sense, it looks at some and reckons with
/// their mean length. Fillers are not counted.
///
/// Places in the stream of bytes are told apart by numbers that do not go round: modulo the ring's
/// size they are indices.
///
/// Thread use: one thread at a time uses one object.
class RecordCounter {
public:
    using HeaderSource = std::function<std::optional<PacketHeader>(std::uint64_t offset)>;
    /// Bytes that each node went.
    using Moves = std::array<std::uint64_t, kMaxNodes>;
    using Counts = std::array<double, kMaxNodes>;

    static constexpr double kMostHeaders = 150;  ///< looked at, a second; twice that at the start
    static constexpr std::size_t kMostMarks = 4096;

    RecordCounter(std::uint64_t size, HeaderSource headerAt);

    /// Places the nodes; what they did before is not counted.
    void Begin(const RingFields& fields, const RingFlow& flow);
    [[nodiscard]] bool HasBegun() const noexcept { return hasBegun_; }

    /// Counts on, over `seconds` since the last call.
    /// @param sink  the last node
    void Go(const Moves& moves, unsigned sink, double seconds);

    /// Forgets the places, which the nodes may have left unseen.
    void Lose() noexcept { hasBegun_ = false; }

    /// What each node has passed since the last call.
    [[nodiscard]] Counts Take();

    /// False if anything that `Take` is going to tell was reckoned.
    [[nodiscard]] bool IsExact() const noexcept { return isExact_; }

    /// Bytes per packet, with a share of the fillers; 0 if no record was ever seen.
    [[nodiscard]] double MeanLength() const noexcept;

    /// The longest of the records looked at last; 0 if there were none.
    [[nodiscard]] std::uint64_t LongestRecord() const noexcept;

private:
    /// Up to `place`, so many packets were counted.
    struct Mark {
        std::uint64_t place;
        double count;
    };

    void GoBlindly(const Moves& moves);
    void Walk();
    [[nodiscard]] bool StepOver();
    void Reckon();
    void Remember(std::uint64_t length, bool isFiller);
    void Put(std::uint64_t place);
    [[nodiscard]] double CountAt(std::uint64_t place);
    void Forget(unsigned sink);
    void Count(unsigned node);

    std::uint64_t size_;
    HeaderSource headerAt_;
    bool hasBegun_ = false;
    bool isExact_ = true;
    double headersLeft_ = 2 * kMostHeaders;

    std::array<std::uint64_t, kMaxNodes> places_{};  // of the nodes
    std::array<double, kMaxNodes> countAt_{};        // when last taken
    Counts passed_{};
    std::uint64_t walked_ = 0;      // up to here records were counted
    std::uint64_t reckonedTo_ = 0;  // up to here a count may be wrong
    double count_ = 0;
    std::deque<Mark> marks_;

    double meanBytes_ = 0;  // decaying sums
    double meanCount_ = 0;
    std::array<std::uint64_t, 64> lengths_{};
    std::size_t nextLength_ = 0;
};

}  // namespace qel
