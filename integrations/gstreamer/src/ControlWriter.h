#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "ControlRecord.h"
#include "PacketWriter.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// A writing node's side of the control ring.
///
/// A chain whose nodes all take part empties the control ring as it empties the ring, and a full
/// one means waiting. Where a node takes no part it stays full for ever, which must not hold up the
/// stream: until the ring has been gone round once, a full one is waited for no longer than
/// `kPatience`, and then records are left out and counted.
///
/// Thread use: one thread at a time; `Dropped` by any.
class ControlWriter {
public:
    static constexpr std::chrono::milliseconds kPatience{100};

    /// @param ring  the control ring, which has `size` bytes; must outlive this object
    ControlWriter(SharedPacketBufferIF& ring, std::uint64_t size);

    /// Tries to write a record.
    /// @param mayWait  false: the caller will not try again, but has other ways if it has to
    /// @return false if there is no room at present and the caller should try again later; true if
    ///         the record is written or left out
    bool TryWrite(ControlHead& head, const std::string& text, bool mayWait);

    /// Records left out.
    [[nodiscard]] std::uint64_t Dropped() const noexcept {
        return dropped_.load(std::memory_order_relaxed);
    }

private:
    using Clock = std::chrono::steady_clock;

    PacketWriter packets_;
    std::uint64_t size_;
    std::uint64_t written_ = 0;  // bytes
    std::optional<Clock::time_point> fullSince_;
    std::atomic<std::uint64_t> dropped_{0};
};

}  // namespace qel
