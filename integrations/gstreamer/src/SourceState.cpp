#include "SourceState.h"

#include <utility>

#include "CapsBlock.h"
#include "StreamNames.h"

namespace qel {

void SourceState::Reset(const std::string& name, const std::string& givenCaps, bool alignTime) {
    formerState_ = name == name_ ? std::exchange(state_, {}) : StreamState();
    state_ = {};
    name_ = name;
    givenCaps_ = givenCaps;
    refusedSerial_ = 0;
    BeginStream();
    pad_.Reset(alignTime);
}

void SourceState::BeginStream() {
    hasSeenRecord_ = false;
    soughtCaps_ = false;
}

bool SourceState::KnowsCapsOf(StreamReader& reader, const Packet& packet,
                              const std::optional<ControlHead>& details) {
    return details ? KnowsCaps(reader, details->serial) : KnowsCapsUnrecorded(reader, packet);
}

/// Makes the caps of number `serial` those of the pad.
bool SourceState::KnowsCaps(StreamReader& reader, std::uint32_t serial) {
    hasSeenRecord_ = true;
    if (serial == state_.serial) {
        return true;
    }
    if (serial == refusedSerial_) {
        return false;
    }
    auto state = LoadState();
    if (!state || state->serial != serial) {
        state = reader.FindState(serial);
    }
    if (!state && formerState_.serial == serial) {
        state = formerState_;
    }
    if (!state && !givenCaps_.empty()) {
        state = GivenState(serial);
    }
    if (state && Adopt(std::move(*state))) {
        return true;
    }
    refusedSerial_ = serial;
    WarnOfUnknownCaps();
    return false;
}

/// Makes the caps of a packet without a record those of the pad.
bool SourceState::KnowsCapsUnrecorded(StreamReader& reader, const Packet& packet) {
    if (hasSeenRecord_ || reader.HasRecords()) {
        return KnowsCapsOfLostRecord();
    }
    // A writer that tells nothing, or a node ahead that passes nothing on.
    if (soughtCaps_ && !(packet.header.key && state_.serial != 0)) {
        return true;
    }
    auto state = LoadState();
    if (!state && !soughtCaps_ && !givenCaps_.empty()) {
        state = GivenState(0);
    }
    soughtCaps_ = true;
    if (state && (state->serial != state_.serial || state_.serial == 0)) {
        (void)Adopt(std::move(*state));
    }
    return true;
}

/// The record was left out or lost: the caps are sure only if nothing has changed since, or ever.
bool SourceState::KnowsCapsOfLostRecord() {
    const auto state = LoadState();
    if (state && state->serial == state_.serial) {
        return true;
    }
    if (!givenCaps_.empty()) {
        const bool areGiven = state_.serial == 0 && state_.caps == givenCaps_;
        return areGiven || Adopt(GivenState(0));
    }
    if (!hasSeenRecord_ && !std::exchange(soughtCaps_, true)) {
        WarnOfUnknownCaps();
    }
    return false;
}

void SourceState::WarnOfUnknownCaps() {
    GST_ELEMENT_WARNING(
        source_, STREAM, FORMAT,
        ("ring %s: the caps of what waits in it are not known any more", name_.c_str()),
        ("Its writer has gone, or has changed them since. The property caps helps "
         "if they are always the same."));
}

std::optional<StreamState> SourceState::LoadState() const {
    return CapsBlock::Load(StreamNames(name_).caps);
}

/// The state that the user has given by the caps.
StreamState SourceState::GivenState(std::uint32_t serial) const {
    StreamState state;
    state.serial = serial;
    state.caps = givenCaps_;
    return state;
}

/// @return false, with no effect, if its caps are none
bool SourceState::Adopt(StreamState state) {
    if (!pad_.SetCaps(state.caps)) {
        return false;
    }
    pad_.SetSegment(state.segment, true);
    pad_.SendTags(state.tags, GST_TAG_SCOPE_STREAM);
    pad_.SendTags(state.globalTags, GST_TAG_SCOPE_GLOBAL);
    state_ = std::move(state);
    return true;
}

void SourceState::Apply(const ControlRecord& event) {
    const ControlHead& head = event.head;
    switch (head.kind) {
        case ControlKind::Caps:
            if (pad_.SetCaps(event.text)) {
                state_.serial = head.serial;
                SeekSegment();
            }
            break;
        case ControlKind::Segment:
            pad_.SetSegment(event.text, head.flags == kStartsAnew);
            break;
        case ControlKind::Tags:
            pad_.SendTags(event.text, GST_TAG_SCOPE_STREAM);
            break;
        case ControlKind::GlobalTags:
            pad_.SendTags(event.text, GST_TAG_SCOPE_GLOBAL);
            break;
        case ControlKind::Gap:
            if (head.pts >= 0) {
                pad_.SendGap(static_cast<GstClockTime>(head.pts), head.duration);
            }
            break;
        case ControlKind::Custom:
            pad_.SendCustom(event.text);
            break;
        case ControlKind::State:
            if (auto state = StreamStateFromText(event.text);
                state && state->serial != state_.serial) {
                (void)Adopt(std::move(*state));
            }
            break;
        case ControlKind::Frame:
        case ControlKind::EndOfStream:
            break;  // go with their packets
    }
}

/// Caps can change without a new segment. A reader that came after the segment's record finds it
/// in the block.
void SourceState::SeekSegment() {
    if (pad_.KnowsSegment()) {
        return;
    }
    if (const auto state = LoadState(); state && state->serial == state_.serial) {
        pad_.SetSegment(state->segment, true);
    }
}

}  // namespace qel
