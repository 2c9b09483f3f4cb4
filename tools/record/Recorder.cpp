#include "Recorder.h"

#include <fmt/format.h>

#include <utility>

#include "Text.h"

namespace qel {

Recorder::Recorder(RecordOptions options, RecordListener listener, PacketFileWriter::Sink sink)
    : options_(std::move(options)),
      listener_(std::move(listener)),
      writer_(std::move(sink)),
      follower_(options_.ring, options_.follower, [this] { return Idle(); }) {}

/// True if the recording is to end.
bool Recorder::Idle() {
    isSinkOver_ = isSinkOver_ || (hasBegun_ && !writer_.Flush());
    return isSinkOver_ || IsOver();
}

bool Recorder::IsOver() const {
    if (listener_.stop()) {
        return true;
    }
    const auto now = Clock::now();
    if (hasBegun_) {
        RecordCounts counts = counts_;
        counts.elapsed = now - begun_;
        listener_.progress(counts);
    }
    return hasBegun_ && options_.time && now - begun_ >= *options_.time;
}

std::uint64_t Recorder::TimeNow() {
    counts_.elapsed = Clock::now() - begun_;
    return static_cast<std::uint64_t>(counts_.elapsed.count());
}

RecordEnd Recorder::Run() {
    if (!follower_.WaitForRing() || !listener_.begin()) {
        return RecordEnd::Stopped;
    }
    begun_ = Clock::now();
    hasBegun_ = true;
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    writer_.Begin(options_.ring, follower_.RingSize().value_or(0),
                  std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
    std::optional<RecordEnd> end;
    while (!end) {
        end = Take(follower_.Next());
    }
    (void)TimeNow();
    (void)writer_.Flush();
    return *end;
}

std::optional<RecordEnd> Recorder::Take(const FollowResult& next) {
    switch (next.outcome) {
        case FollowOutcome::Packet:
            return TakePacket(next);
        case FollowOutcome::EndOfStream:
            (void)writer_.Mark(TimeNow(), PacketFileKind::EndOfStream);
            return options_.follow ? std::nullopt : std::optional(RecordEnd::EndOfStream);
        case FollowOutcome::Overrun:
            ++counts_.overruns;
            (void)writer_.Mark(TimeNow(), PacketFileKind::Overrun);
            listener_.say(fmt::format("overrun behind packet {}: packets may have been missed",
                                      counts_.packets));
            return std::nullopt;
        case FollowOutcome::Remade:
            listener_.say(fmt::format("ring {} was made anew behind packet {}",
                                      OneLine(options_.ring), counts_.packets));
            return std::nullopt;
        case FollowOutcome::Removed:
            return RecordEnd::Removed;
        case FollowOutcome::Stopped:
            break;
    }
    const bool isTime = options_.time && Clock::now() - begun_ >= *options_.time;
    return isTime && !listener_.stop() ? RecordEnd::Limit : RecordEnd::Stopped;
}

std::optional<RecordEnd> Recorder::TakePacket(const FollowResult& next) {
    constexpr std::uint64_t kLookAtClock = 64;  // packets
    if (!writer_.Packet(TimeNow(), next.header, next.payload)) {
        return RecordEnd::Stopped;
    }
    ++counts_.packets;
    counts_.bytes += next.payload.size();
    const bool isFull = (options_.packets && counts_.packets >= *options_.packets) ||
                        (options_.bytes && counts_.bytes >= *options_.bytes);
    if (isFull) {
        return RecordEnd::Limit;
    }
    // A busy ring leaves no pause in which to look.
    if (counts_.packets % kLookAtClock == 0 && IsOver()) {
        return listener_.stop() ? RecordEnd::Stopped : RecordEnd::Limit;
    }
    return std::nullopt;
}

}  // namespace qel
