#include "StreamReader.h"

namespace qel {

std::optional<ReceivedPacket> StreamReader::TryNext() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (isBroken_) {
        return ReceivedPacket{ReadOutcome::Broken, 0, {}};
    }
    auto received = packets_.TryNext();
    if (received) {
        node_.WorkDone();
    }
    return received;
}

bool StreamReader::HandOn(InOrderRelease::Ticket ticket) {
    bool isSound = false;
    node_.SignalNext();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isSound = packets_.Release(ticket) == SMStatusCode::SUCCESS;
        isBroken_ = isBroken_ || !isSound;
    }
    node_.SignalNext();
    return isSound;
}

std::optional<ControlRecord> StreamReader::TakeEvent() {
    auto event = control_.TakeEvent();
    if (event) {
        node_.SignalNext();  // it has gone on to the next node, which may be waiting
    }
    return event;
}

std::uint64_t StreamReader::Fillers() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return packets_.Fillers();
}

}  // namespace qel
