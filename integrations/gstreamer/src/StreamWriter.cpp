#include "StreamWriter.h"

#include <chrono>
#include <random>
#include <utility>

#include "EndOfStream.h"
#include "RingRules.h"

namespace qel {
namespace {

bool NeverWait() {
    return true;
}

/// Not 0, and hardly ever that of the writer before.
std::uint32_t FirstSerial() {
    return std::random_device()() | 1U;
}

std::uint32_t NextSerial(std::uint32_t serial) {
    return serial + 1 == 0 ? 1 : serial + 1;
}

}  // namespace

StreamWriter::StreamWriter(const StreamOptions& options)
    : options_(options),
      node_(options),
      packets_(node_.Ring(), options.size, WaitMode::Yield, NeverWait),
      control_(node_.Control(), ControlRingSize(options.size), WaitMode::Yield, NeverWait),
      block_(StreamNames(options.name).caps) {
    state_.serial = FirstSerial();
}

void StreamWriter::Announce(Outgoing& outgoing) {
    RepeatState(outgoing.packet);
    outgoing.head.serial = state_.serial;
    WriteControl(outgoing.head, {});
}

void StreamWriter::RepeatState(const Packet& packet) {
    const auto now = std::chrono::steady_clock::now();
    const bool isDue = packet.header.key && now - repeated_ >= kBetweenStates;
    if (state_.caps.empty() || !(isDue || IsEndOfStream(packet))) {
        return;
    }
    repeated_ = now;
    ControlHead head = MakeEventHead(ControlKind::State);
    head.serial = state_.serial;
    WriteControl(head, ToText(state_));
}

WriteOutcome StreamWriter::TryWrite(const Outgoing& outgoing) {
    WriteOutcome outcome = WriteOutcome::Broken;
    if (!outgoing.spans.empty()) {
        outcome = packets_.WriteGathered(outgoing.packet, outgoing.spans);
    } else if (outgoing.critical) {
        outcome = packets_.WriteCritical(outgoing.packet);
    } else {
        outcome = packets_.Write(outgoing.packet);
    }
    if (outcome == WriteOutcome::Written) {
        node_.WorkDone();
        node_.SignalNext();
    }
    return outcome;
}

bool StreamWriter::Tell(ControlKind kind, const std::string& text, ControlHead head) {
    StreamState state = state_;
    if (kind == ControlKind::Caps) {
        state.serial = NextSerial(state.serial);
        state.caps = text;
    } else if (kind == ControlKind::Segment) {
        state.segment = text;
    } else if (kind == ControlKind::Tags) {
        state.tags = text;
    } else if (kind == ControlKind::GlobalTags) {
        state.globalTags = text;
    }
    const bool isOfState = kind != ControlKind::Gap && kind != ControlKind::Custom;
    const bool isStored = !isOfState || block_.Store(state);
    const bool isTags = kind == ControlKind::Tags || kind == ControlKind::GlobalTags;
    if (isStored || !isTags) {  // tags that are too large would keep later caps out
        state_ = std::move(state);
    }
    head.serial = state_.serial;
    WriteControl(head, text);
    node_.SignalNext();
    return isStored;
}

void StreamWriter::WriteControl(ControlHead& head, const std::string& text) {
    Packet packet;
    packet.header.pts = head.pts;
    packet.header.timestampSec = head.control.timeStamp;
    // The ring copies from the text; spans of constant bytes do not exist there.
    auto* const bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
    const std::vector<ByteSpan> spans{BytesOf(head), {bytes, text.size()}};
    const auto write = [&] { return control_.WriteGathered(packet, spans); };
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + kControlPatience;
    WriteOutcome outcome = write();
    while (outcome == WriteOutcome::Stopped && !controlIsFull_ && Clock::now() < deadline) {
        node_.Wait();
        outcome = write();
    }
    controlIsFull_ = outcome == WriteOutcome::Stopped;
    if (outcome != WriteOutcome::Written) {
        controlDropped_.fetch_add(1, std::memory_order_relaxed);
    }
}

std::uint64_t StreamWriter::LargestPacket() const noexcept {
    return LargestPayload(options_.size).value_or(0);
}

}  // namespace qel
