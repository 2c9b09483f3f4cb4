#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "PacketHeader.h"
#include "RecordCounter.h"
#include "RingFields.h"
#include "RingFlow.h"
#include "RingPace.h"

namespace qel {

/// What a node does. Its bytes are those of the ring: headers and fillers are among them.
struct NodeFigures {
    double bytesPerSecond = 0;    ///< read; of node 0: written
    double packetsPerSecond = 0;  ///< fillers are not counted
    /// Seconds from when the node before handed a byte on to when this one did: the mean of what
    /// waited for the node or was held by it, over what it read per second. Nothing for node 0, or
    /// when it read nothing.
    std::optional<double> latency;

    double waiting = 0;  ///< bytes, mean; 0 for node 0
    double held = 0;     ///< bytes, mean; 0 for node 0
    std::uint64_t waitingNow = 0;
    std::uint64_t heldNow = 0;
    std::uint64_t lagNow = 0;  ///< bytes that the writer has written and this node not read

    // Since the meter began:
    std::uint64_t bytes = 0;
    std::uint64_t packets = 0;
    double byteSeconds = 0;  ///< of bytes waiting or held; over `bytes` it is the mean latency
};

/// What a ring does.
struct RingFigures {
    double seconds = 0;  ///< how long was measured
    bool isInitialised = false;
    /// False if it is not initialised, or the fields are those of no ring of its size: nothing
    /// below means anything then but the size and the numbers of packets.
    bool isSound = false;
    bool moves = false;  ///< a node read or wrote anything

    /// False if a node may have gone once more round the ring than was seen: bytes and what is
    /// computed from them are estimates. `...Totals`: at any time since the meter began.
    bool bytesAreExact = true;
    bool byteTotalsAreExact = true;
    /// The nodes go round so quickly that looking at them keeps them up: they are faster than told.
    bool isTooFast = false;
    /// False if not all headers were looked at: packets are estimates.
    bool packetsAreExact = true;
    bool packetTotalsAreExact = true;

    std::uint64_t size = 0;         ///< bytes of the data area
    double fill = 0;                ///< mean share of it in use, 0 to 1
    std::uint64_t freeNow = 0;      ///< bytes
    std::uint32_t packets = 0;      ///< in the ring now; counted while there is a limit only
    std::uint32_t packetLimit = 0;  ///< 0: none
    std::uint64_t largestRecord =
        0;  ///< bytes, of the last records looked at; 0 if there were none
    /// Share of time, 0 to 1, in which the largest record would not have been taken from the
    /// writer: it had to wait or to drop it. Nothing before a record was seen.
    std::optional<double> full;

    unsigned sink = 1;                           ///< the last node that anything has reached
    std::array<NodeFigures, kMaxNodes> nodes{};  ///< 0 to `sink`
};

/// Measures what a ring does from samples of its control block, which has no totals: it has
/// indices that go round. So the meter tells when it wants the next sample, soon enough for no node
/// to get round unseen; where that would be too often, it looks now and then and says that its
/// figures are estimates.
///
/// Nothing that stands in the ring can do harm: at most `RecordCounter::kMostHeaders` headers a
/// second are looked at, and what no ring can have is not computed with.
///
/// Dropped packets leave no trace in a ring: whoever drops one counts it, in its own process.
///
/// Thread use: one thread at a time uses one object.
class RingMeter {
public:
    using Clock = std::chrono::steady_clock;
    /// The header at an offset of the data area, if it can be read: as `RingFile::HeaderAt`.
    using HeaderSource = RecordCounter::HeaderSource;

    /// @param size  bytes of the data area
    RingMeter(std::uint64_t size, HeaderSource headerAt,
              RingPace::Care care = RingPace::kUsualCare);

    /// Takes a sample.
    /// @param fields    as they were at `now`; at best such that did not change while they were
    /// read
    /// @param isStable  they did not: where the bytes are can be told from them
    /// @param now       not before that of the last sample
    void Take(const RingFields& fields, bool isStable, Clock::time_point now);

    /// When the next sample is wanted; before the first, any time. It does no harm to be late, but
    /// figures may become estimates.
    [[nodiscard]] Clock::time_point Next() const noexcept { return pace_.Next(); }

    /// From when on it is welcome, because another ring is looked at anyhow.
    [[nodiscard]] Clock::time_point Soonest() const noexcept { return pace_.Soonest(); }

    /// That somebody says of a node that it is one of the chain; otherwise a node is one as soon as
    /// anything has reached it. Figures have all nodes up to the last.
    /// @param node  0 to 4
    void Expect(unsigned node) noexcept;

    /// What the ring has done since the last call, and begins anew.
    /// @param now  not before the last sample
    [[nodiscard]] RingFigures Figures(Clock::time_point now);

private:
    using Moves = RecordCounter::Moves;
    using PerNode = std::array<double, kMaxNodes>;
    using Seconds = std::chrono::duration<double>;

    /// What was seen since the last figures.
    struct Seen {
        bool isExact = true;  ///< no node can have gone round unseen
        bool moves = false;
        bool isTooFast = false;
        PerNode bytes{};
        PerNode reckoned{};  ///< those of `bytes` that were not seen
        Seconds watched{0};  ///< time for which it is known where the bytes were
        Seconds full{0};     ///< of this
        double used = 0;     ///< byte-seconds, as the next two
        PerNode waiting{};
        PerNode held{};
    };

    /// What was seen since something was last missed, or longer ago if that is too little.
    struct Window {
        Seconds length{0};
        PerNode bytes{};
    };

    void ExpectWhoMoves(const RingFields& fields) noexcept;
    void Lose();
    void Step(const RingFields& fields, Clock::time_point now);
    void Go(const Moves& moves, Seconds length);
    void Reckon(const Moves& moves, const RingFields& fields, Seconds length);
    void See(const RingFields& fields, Clock::time_point now);
    [[nodiscard]] bool IsFull(const RingFields& fields) const;
    void TellNow(RingFigures& figures) const;
    void TellStream(RingFigures& figures);
    void TellStages(RingFigures& figures);

    std::uint64_t size_;
    RingPace pace_;
    RecordCounter counter_;
    unsigned sink_ = 1;

    Clock::time_point began_{};  // the time that the next figures are about
    bool hasBegun_ = false;
    RingFields last_;
    bool wasSound_ = false;  // they were: the next step begins with them
    Clock::time_point lastTime_{};
    Clock::time_point lastSeen_{};  // when it was last told where the bytes were
    std::optional<RingFlow> flow_;  // then
    Seen seen_;
    Window window_;
    bool windowEnded_ = false;

    PerNode bytes_{};  // these three: since the meter began
    PerNode packets_{};
    PerNode byteSeconds_{};
    bool bytesAreExact_ = true;
    bool packetsAreExact_ = true;
};

}  // namespace qel
