#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "RingMeter.h"

namespace qel::test {

/// A chain that never was: what its control block and its headers would hold at any time.
struct ForgedChain {
    using Clock = RingMeter::Clock;

    std::uint64_t size = 0;    ///< a multiple of `record`
    std::uint64_t record = 0;  ///< bytes, with the header
    double speed = 0;          ///< bytes per second of every node
    double starts = 0;         ///< seconds from the beginning; nothing moves before
    unsigned sink = 1;
    std::uint64_t waiting = 0;  ///< records that wait for each node but the first
    std::uint64_t held = 0;     ///< records that each holds
    std::uint64_t before = 0;   ///< records that went through before the beginning

    static Clock::time_point At(double seconds) {
        return Clock::time_point() +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    }
    static double SecondsAt(Clock::time_point time) {
        return std::chrono::duration<double>(time.time_since_epoch()).count();
    }

    /// Bytes that the writer has written, of what begins with a full pipe of records.
    [[nodiscard]] std::uint64_t Written(double seconds) const {
        const double passed = seconds > starts ? (seconds - starts) * speed : 0;
        return static_cast<std::uint64_t>(passed / static_cast<double>(record)) * record +
               ((waiting + held) * sink + before) * record;
    }

    [[nodiscard]] RingFields Fields(double seconds) const {
        RingFields fields;
        fields.initialised = 1;
        const std::uint64_t written = Written(seconds);
        fields.wIdx[0] = written % size;
        fields.avail[0] = size - (waiting + held) * sink * record;
        std::uint64_t place = written;
        for (unsigned node = 1; node <= sink; ++node) {
            fields.avail.at(node) = waiting * record;
            fields.rIdx.at(node) = (place - waiting * record) % size;
            place -= (waiting + held) * record;
        }
        return fields;
    }

    [[nodiscard]] std::optional<PacketHeader> HeaderAt(std::uint64_t offset) const {
        PacketHeader header;
        header.length = offset % record == 0 ? record - kPacketHeaderSize : ~0ULL;
        return header;
    }

    [[nodiscard]] RingMeter Meter() const {
        return RingMeter(size, [this](std::uint64_t offset) { return HeaderAt(offset); });
    }

    /// What the sampling costs.
    struct Effort {
        unsigned sleeps = 0;
        double spun = 0;  ///< seconds
    };

    /// Samples whenever the meter wants it, from `from` to `to`; at the end too.
    Effort Feed(RingMeter& meter, double from, double to) const {
        Effort effort;
        meter.Take(Fields(from), true, At(from));
        double last = from;
        for (double now = SecondsAt(meter.Next()); now < to; now = SecondsAt(meter.Next())) {
            meter.Take(Fields(now), true, At(now));
            const bool isSpun = now - last < SecondsAt(Clock::time_point(RingPace::kShortestSleep));
            effort.sleeps += isSpun ? 0 : 1;
            effort.spun += isSpun ? now - last : 0;
            last = now;
        }
        meter.Take(Fields(to), true, At(to));
        return effort;
    }
};

}  // namespace qel::test
