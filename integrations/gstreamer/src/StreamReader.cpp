#include "StreamReader.h"

namespace qel {

std::optional<ReceivedPacket> StreamReader::TryNext() {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto received = packets_.TryNext();
    if (received) {
        node_.WorkDone();
    }
    return received;
}

bool StreamReader::HandOn(InOrderRelease::Ticket ticket) {
    SMStatusCode status = SMStatusCode::SUCCESS;
    node_.SignalNext();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        status = packets_.Release(ticket);
    }
    node_.SignalNext();
    return status == SMStatusCode::SUCCESS;
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
