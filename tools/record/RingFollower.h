#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "RingTap.h"
#include "TapPace.h"

namespace qel {

/// What comes next of a ring that is followed.
enum class FollowOutcome {
    Packet,       ///< a packet of content
    EndOfStream,  ///< the end mark
    Overrun,      ///< packets may have been missed here
    Remade,   ///< the ring was removed, or cut, and is there anew: what follows is of the new one
    Removed,  ///< the ring was removed
    Stopped,  ///< asked to stop
};

struct [[nodiscard]] FollowResult {
    FollowOutcome outcome = FollowOutcome::Stopped;
    PacketHeader header;
    ByteSpan payload;  ///< valid until the next call
};

/// Follows the ring of a name with a RingTap, through its making and removal, and waits.
///
/// Thread use: one thread at a time.
class RingFollower {
public:
    struct Options {
        RingTap::Start start = RingTap::Start::Now;
        bool waitForRing = false;                       ///< it need not be there at first
        bool waitForNext = false;                       ///< nor be there again when it was removed
        std::optional<std::chrono::microseconds> poll;  ///< longest pause between two looks
    };

    /// @param idle  called ahead of each pause; true stops
    /// @throws std::runtime_error if there is no ring and it is not to be waited for
    RingFollower(std::string name, const Options& options, std::function<bool()> idle);

    FollowResult Next();

    /// Bytes of the present ring's data area; nothing while there is none.
    [[nodiscard]] std::optional<std::uint64_t> RingSize() const;

    /// Waits until there is a ring. @return false if asked to stop
    [[nodiscard]] bool WaitForRing();

private:
    [[nodiscard]] bool Open(RingTap::Start start);
    [[nodiscard]] bool Pause();
    [[nodiscard]] std::optional<FollowOutcome> CheckObject();

    std::string name_;
    Options options_;
    std::function<bool()> idle_;
    std::optional<RingTap> tap_;
    std::optional<TapPace> pace_;
    std::uint64_t passed_ = 0;  ///< by the tap, when the pace was told last
    TapPace::Clock::time_point nextCheck_;
};

}  // namespace qel
