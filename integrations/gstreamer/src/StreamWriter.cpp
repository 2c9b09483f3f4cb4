#include "StreamWriter.h"

#include <algorithm>
#include <array>
#include <random>
#include <utility>

#include "EndOfStream.h"
#include "PayloadAlignment.h"
#include "RingRules.h"

namespace qel {
namespace {

/// Not 0, and hardly ever that of the writer before.
std::uint32_t FirstSerial() {
    return std::random_device()() | 1U;
}

std::uint32_t NextSerial(std::uint32_t serial) {
    return serial + 1 == 0 ? 1 : serial + 1;
}

/// `size` zeros in pieces.
std::vector<ByteSpan> Zeros(std::uint64_t size) {
    static std::array<unsigned char, 65536> zeros{};
    std::vector<ByteSpan> spans;
    while (size > 0) {
        const std::uint64_t piece = std::min<std::uint64_t>(size, zeros.size());
        spans.emplace_back(zeros.data(), piece);
        size -= piece;
    }
    return spans;
}

}  // namespace

StreamWriter::StreamWriter(const StreamOptions& options)
    : options_(options),
      node_(options),
      packets_(node_.Ring(), options.size, WaitMode::Yield, [] { return true; }),
      inPlace_(node_.Ring()),
      control_(node_.Control(), ControlRingSize(options.size)),
      block_(StreamNames(options.name).caps) {
    state_.serial = FirstSerial();
}

WriteOutcome StreamWriter::TryWrite(Outgoing& outgoing, bool mayWait) {
    if (!TryAnnounce(outgoing, mayWait)) {
        return WriteOutcome::Stopped;
    }
    if (const WriteOutcome padded = TryPad(outgoing); padded != WriteOutcome::Written) {
        return padded;
    }
    node_.SignalNext();
    WriteOutcome outcome = WriteOutcome::Broken;
    if (outgoing.fill) {
        outcome = TryFill(outgoing);
    } else if (!outgoing.spans.empty()) {
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

/// Writes a payload that is made where it is to lie, which saves a copy.
WriteOutcome StreamWriter::TryFill(const Outgoing& outgoing) {
    ByteSpan room;
    const WriteOutcome reserved = packets_.Reserve(inPlace_, outgoing.size, room);
    if (reserved != WriteOutcome::Written) {
        return reserved;
    }
    outgoing.fill(room);
    const SMStatusCode status = inPlace_.Commit(outgoing.packet.header, outgoing.size);
    return status == SMStatusCode::SUCCESS ? WriteOutcome::Written : WriteOutcome::Broken;
}

bool StreamWriter::TryAnnounce(Outgoing& outgoing, bool mayWait) {
    if (!outgoing.announced && TryRepeatState(outgoing.packet, mayWait)) {
        outgoing.head.serial = state_.serial;
        outgoing.announced = control_.TryWrite(outgoing.head, {}, mayWait);
    }
    return outgoing.announced;
}

bool StreamWriter::TryRepeatState(const Packet& packet, bool mayWait) {
    const auto now = std::chrono::steady_clock::now();
    const bool isDue = packet.header.key && now - repeated_ >= kBetweenStates;
    if (state_.caps.empty() || !(isDue || IsEndOfStream(packet))) {
        return true;
    }
    ControlHead head = MakeEventHead(ControlKind::State);
    head.serial = state_.serial;
    if (!control_.TryWrite(head, ToText(state_), mayWait)) {
        return false;
    }
    repeated_ = now;
    return true;
}

/// Writes what has to go ahead of a packet whose payload is to be aligned.
WriteOutcome StreamWriter::TryPad(const Outgoing& outgoing) {
    // A place for what is made in place has room for one more header: it may become shorter.
    const std::uint64_t behind = outgoing.fill ? kPacketHeaderSize : 0;
    WriteOutcome outcome = WriteOutcome::Written;
    while (outgoing.aligned && outcome == WriteOutcome::Written) {
        const auto padding = PaddingAhead(WriteIndexOf(node_.Ring(), options_.node), outgoing.size,
                                          options_.size, behind);
        if (!padding) {
            break;
        }
        Packet filler;
        filler.header.ignoreData = true;
        outcome = packets_.WriteGathered(filler, Zeros(*padding));
    }
    return outcome;
}

bool StreamWriter::Tell(ControlKind kind, const std::string& text, ControlHead head,
                        const StopPredicate& stop) {
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
    while (!control_.TryWrite(head, text, true) && !(stop && stop())) {
        node_.Wait();
    }
    node_.SignalNext();
    return isStored;
}

std::uint64_t StreamWriter::LargestPacket() const noexcept {
    return LargestPayload(options_.size).value_or(0);
}

}  // namespace qel
