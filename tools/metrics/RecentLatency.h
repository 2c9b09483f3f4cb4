#pragma once

#include <cstdint>
#include <optional>

namespace qel {

/// How long bytes were with a node, lately: sums of which the older part counts for less and less.
/// Few looks a second tell little of a single second.
class RecentLatency {
public:
    /// Share of the sums that is left after each time.
    static constexpr double kKept = 0.9;

    /// @param bytes        that the node has read, all in all
    /// @param byteSeconds  that bytes were with it, all in all
    void Take(std::uint64_t bytes, double byteSeconds) noexcept {
        bytes_ = bytes_ * kKept + static_cast<double>(bytes - lastBytes_);
        byteSeconds_ = byteSeconds_ * kKept + (byteSeconds - lastByteSeconds_);
        lastBytes_ = bytes;
        lastByteSeconds_ = byteSeconds;
    }

    /// In seconds; nothing if hardly a byte was read.
    [[nodiscard]] std::optional<double> Value() const noexcept {
        return bytes_ < 1 ? std::nullopt : std::optional(byteSeconds_ / bytes_);
    }

private:
    double bytes_ = 0;
    double byteSeconds_ = 0;
    std::uint64_t lastBytes_ = 0;
    double lastByteSeconds_ = 0;
};

}  // namespace qel
