// Reading records in place, handing their bytes on, and telling the ring's state.

#include <algorithm>
#include <gsl/util>
#include <sstream>
#include <string>

#include "LogClient.h"
#include "SharedBuffer.h"
#include "SharedBufferLog.h"

namespace qel {

ReadResult SharedBuffer::DoReadData(std::uint64_t index, std::uint64_t length) {
    const std::uint64_t size = ShmSize();
    if (index > size || length > size) {
        return RefuseView(index, length);
    }
    return {dataArea_->subspan(index, std::min(length, size - index)), SMStatusCode::SUCCESS};
}

[[gnu::flatten]] ReadResult SharedBuffer::DoReadHeader(std::uint64_t length) {
    pendingHeaderLength_ = 0;
    // Pairs with the previous node's add: bytes that are counted here have been written.
    if (Avail(nodeIdx_).load() < length) {
        return {{}, SMStatusCode::DATA_NOT_AVAILABLE};
    }
    return LookAtHeader(length);
}

/// The one result is made where the caller wants it: to copy a view costs more than to make it.
ReadResult SharedBuffer::LookAtHeader(std::uint64_t length) {
    ReadResult header = ReadData(gsl::at(control_->rIdx, nodeIdx_).load(), length);
    if (header.status == SMStatusCode::SUCCESS) {
        pendingHeaderLength_ = length;
    } else {
        header.data = {};
    }
    return header;
}

[[gnu::flatten]] PayloadResult SharedBuffer::DoReadPayload(std::uint64_t length) {
    const std::uint64_t recordLength = pendingHeaderLength_ + length;
    // Pairs with the previous node's add, as in DoReadHeader.
    const std::uint64_t available = Avail(nodeIdx_).load();
    if (recordLength > available) {
        return RefusePayload(length, available);
    }
    const std::uint64_t position =
        Wrap(gsl::at(control_->rIdx, nodeIdx_).load() + pendingHeaderLength_);
    const ReadResult payload = ReadData(position, length);
    Consume(recordLength);
    return {payload.data, position, payload.status};
}

[[gnu::flatten]] SMStatusCode SharedBuffer::DoReleaseData(std::uint64_t size, std::uint32_t count) {
    bool clamped = false;
    if (sink_) {
        clamped = IncreaseAvailableSize(size, 0);
        clamped = DecrementPackets(count) || clamped;
    } else {
        clamped = IncreaseAvailableSize(size, static_cast<std::uint8_t>(nodeIdx_ + 1));
    }
    return clamped ? SMStatusCode::INVALID_PARAMETER : SMStatusCode::SUCCESS;
}

void SharedBuffer::DoPrint(LogLevel level) {
    namespace log = shared_buffer_log;
    if (!LogClient::LevelIsEnabled(level)) {
        return;
    }
    std::ostringstream text;
    text << " {" << shmName_ << "} my node index " << unsigned{nodeIdx_} << '\n'
         << " Error String: " << errorString_ << '\n';
    errorString_.clear();
    for (gsl::index node = 0; node < gsl::index{kMaxNodes}; ++node) {
        // Loaded one by one, for information: the lines are no consistent snapshot.
        text << "  Node[" << node << "]: wIdx=" << gsl::at(control_->wIdx, node).load()
             << ", rIdx=" << gsl::at(control_->rIdx, node).load()
             << ", avail=" << gsl::at(control_->avail, node).load()
             << ", numPackets=" << control_->numPackets.load() << " of " << control_->maxPackets
             << '\n';
    }
    if (LogClient::LevelIsEnabled(level)) {
        LogClient(log::kSourcePath, "DoPrint", log::kDoPrintLine, level, log::kCategory)
            << text.str();
    }
}

Capacity SharedBuffer::DoGetCurrentCapacity() {
    return {shmName_, control_->maxPackets, control_->numPackets.load()};
}

}  // namespace qel
