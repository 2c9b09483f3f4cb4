#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace qel {

/// What the writer puts at the head of each frame.
struct FrameStamp {
    std::uint64_t number;
    std::int64_t sent;  ///< CLOCK_MONOTONIC in ns
};

/// The frames that a writer sends in turn. Their pictures are made beforehand, so that making them
/// costs nothing while it is measured.
class FrameSet {
public:
    static constexpr std::size_t kCount = 4;

    explicit FrameSet(std::size_t frameBytes);

    /// The memory of frame `number`, stamped.
    [[nodiscard]] std::vector<unsigned char>& Stamp(FrameStamp stamp);

private:
    std::array<std::vector<unsigned char>, kCount> frames_;
};

/// Tells whether a frame that arrived is what the writer sent.
///
/// Thread use: one thread at a time.
class FrameChecker {
public:
    /// @param readAll  look at a byte of each cache line instead of the first and the last line's
    FrameChecker(std::size_t frameBytes, bool readAll);

    /// The frame's stamp, or nothing when the frame's length or content is wrong.
    [[nodiscard]] std::optional<FrameStamp> Check(const unsigned char* data,
                                                  std::size_t size) const;

private:
    std::size_t frameBytes_;
    bool readAll_;
    std::array<std::uint64_t, FrameSet::kCount> sums_;
};

}  // namespace qel
