#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Packet.h"
#include "PacketFileReader.h"

namespace qel {

/// What is in a recording.
struct RecordingSurvey {
    std::uint64_t packets = 0;
    std::uint64_t largestPayload = 0;
    std::uint64_t overruns = 0;
    bool isTorn = false;
};

/// Passes over a recording, with `skip` as for PacketFileReader::NextHead.
/// @throws PacketFileError
[[nodiscard]] RecordingSurvey Survey(PacketFileReader& reader,
                                     const std::function<bool(std::uint64_t)>& skip);

/// Gives the packets of a recording one after the other, each when it is due.
///
/// Thread use: one thread at a time.
class Replay {
public:
    /// The recording from its start.
    using Open = std::function<std::unique_ptr<PacketFileReader>()>;

    struct Options {
        double speed = 1;         ///< as many times faster than it was recorded
        bool fast = false;        ///< without waiting at all
        std::uint64_t loops = 1;  ///< passes; 0: without end
    };

    /// @param stop  ends the wait for a packet's time
    Replay(Options options, Open open, std::function<bool()> stop);

    /// Waits. Its data is there until the next call. End marks between packets are given as well,
    /// those that only end the recording are not.
    /// @return nothing at the end, or when stopped
    /// @throws PacketFileError
    [[nodiscard]] std::optional<Packet> Next();

    [[nodiscard]] std::uint64_t Overruns() const noexcept { return overruns_; }
    [[nodiscard]] bool IsTorn() const noexcept { return isTorn_; }

private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] std::optional<PacketFileReader::Entry> NextPacket();
    [[nodiscard]] bool BeginPass();
    [[nodiscard]] Clock::duration Scaled(double nanoseconds) const;
    [[nodiscard]] bool WaitFor(std::uint64_t time);

    Options options_;
    Open open_;
    std::function<bool()> stop_;
    std::unique_ptr<PacketFileReader> reader_;
    std::optional<PacketFileReader::Entry> held_;  ///< its turn is behind an end mark
    std::uint64_t pass_ = 0;
    std::uint64_t packetsOfPass_ = 0;
    bool hasEnded_ = false;                   ///< an end mark came last
    std::optional<std::uint64_t> firstTime_;  ///< of this pass
    std::uint64_t lastTime_ = 0;
    Clock::time_point passBegun_;
    std::uint64_t overruns_ = 0;
    bool isTorn_ = false;
};

}  // namespace qel
