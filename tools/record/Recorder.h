#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "PacketFileWriter.h"
#include "RingFollower.h"

namespace qel {

/// What a recording has taken in.
struct RecordCounts {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;  ///< of their payloads
    std::uint64_t overruns = 0;
    std::chrono::nanoseconds elapsed{0};
};

/// Why a recording ended.
enum class RecordEnd {
    EndOfStream,
    Limit,    ///< as many packets or bytes, or as much time, as asked for
    Removed,  ///< the ring was removed
    Stopped,
};

struct RecordOptions {
    std::string ring;
    RingFollower::Options follower;
    bool follow = false;  ///< end marks do not end the recording
    std::optional<std::uint64_t> packets;
    std::optional<std::uint64_t> bytes;
    std::optional<std::chrono::duration<double>> time;
};

/// What a recording says while it runs.
struct RecordListener {
    std::function<bool()> stop;  ///< asked often
    std::function<void(const RecordCounts&)> progress;
    std::function<void(const std::string&)> say;  ///< a line
    std::function<bool()> begin;  ///< the ring is there: the output is to be made; false stops
};

/// Follows a ring and writes its packets until the stream ends or a limit is reached.
class Recorder {
public:
    /// @throws std::runtime_error if there is no ring and it is not to be waited for
    Recorder(RecordOptions options, RecordListener listener, PacketFileWriter::Sink sink);

    /// @throws std::runtime_error
    RecordEnd Run();

    [[nodiscard]] const RecordCounts& Counts() const noexcept { return counts_; }

private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] bool Idle();
    [[nodiscard]] bool IsOver() const;
    [[nodiscard]] std::uint64_t TimeNow();
    [[nodiscard]] std::optional<RecordEnd> Take(const FollowResult& next);
    [[nodiscard]] std::optional<RecordEnd> TakePacket(const FollowResult& next);

    RecordOptions options_;
    RecordListener listener_;
    PacketFileWriter writer_;
    RecordCounts counts_;
    Clock::time_point begun_;
    bool hasBegun_ = false;
    bool isSinkOver_ = false;
    RingFollower follower_;
};

}  // namespace qel
