#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qel {

/// Raw video in I420.
struct VideoStream {
    std::string name;
    unsigned width;
    unsigned height;
    unsigned rate;  ///< frames per second

    [[nodiscard]] std::size_t FrameBytes() const {
        return static_cast<std::size_t>(width) * height * 3 / 2;
    }
};

/// What one writer sends to one reader.
struct Plan {
    VideoStream stream;
    bool flatOut;            ///< send as fast as the transport takes frames
    std::uint64_t frames;    ///< all, those of the warm-up included
    std::uint64_t warmUp;    ///< frames at the beginning that are checked but not measured; not 0
    std::uint64_t ringSize;  ///< bytes of shared memory, for transports that have it
    double idleSeconds;      ///< how long both sides stay without data at the end
    bool readAll;            ///< the reader reads a byte of each cache line

    [[nodiscard]] std::uint64_t Measured() const { return frames - warmUp; }
};

}  // namespace qel
