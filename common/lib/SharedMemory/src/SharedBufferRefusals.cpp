// What the ring says of operations that it refuses or clamps: seldom run, and kept out of the way
// of those that succeed.

#include <algorithm>
#include <string>

#include "SharedBuffer.h"

namespace qel {

using std::to_string;

bool SharedBuffer::ReserveTooMuch(Counter& avail, std::uint64_t available, std::uint64_t size) {
    SetFirstError("DecreaseAvailableSize",
                  " Reserving too much [current available=" + to_string(available) +
                      "], reserving " + to_string(size));
    avail.fetch_sub(available);
    return true;
}

bool SharedBuffer::ReleaseTooMuch(Counter& avail, std::uint64_t available, std::uint64_t size) {
    SetFirstError("IncreaseAvailableSize", " Releasing too much [total=" + to_string(ShmSize()) +
                                               "][current available=" + to_string(available) +
                                               "], releasing " + to_string(size));
    avail.fetch_add(ShmSize() - std::min(available, ShmSize()));
    return true;
}

bool SharedBuffer::ReleaseTooManyPackets(std::uint32_t numPackets, std::uint32_t count) {
    SetFirstError("DecrementPackets", " Releasing too many packets " + to_string(count) +
                                          ", numPackets " + to_string(numPackets));
    control_->numPackets.store(0);
    return true;
}

WriteResult SharedBuffer::RefuseForRoom(std::uint64_t packetLength, std::uint64_t reserve,
                                        const Room& room) {
    SetError(kMultiData, " Packet size: " + to_string(packetLength) +
                             " Reserve: " + to_string(reserve) + TextOf(room));
    return {0, SMStatusCode::NOT_ENOUGH_SPACE};
}

WriteResult SharedBuffer::RefuseFillerForRoom(std::uint64_t packetLength, const Room& room) {
    SetError(kSkipPayload, " Packet size: " + to_string(packetLength) + TextOf(room));
    return {0, SMStatusCode::NOT_ENOUGH_SPACE};
}

WriteResult SharedBuffer::RefusePlace(const char* operation, std::uint64_t start,
                                      std::uint64_t headerLength, std::uint64_t packetLength,
                                      const Room& room) {
    const std::uint64_t size = ShmSize();
    if (headerLength > size || Wrap(start) != start) {
        // Only a broken peer can bring this about: the counters or the index are forged.
        SetError(operation, " Invalid Write Index: " + to_string(start) + " Header: " +
                                to_string(headerLength) + " Size: " + to_string(size));
        return {0, SMStatusCode::INVALID_PARAMETER};
    }
    if (!room.AllowsPackets(2)) {  // a fill record and the packet
        SetError(operation, room.PacketsText());
        return {0, SMStatusCode::NOT_ENOUGH_SPACE};
    }
    SetError(operation,
             " PacketSize: " + to_string(packetLength) +
                 " exceeds size of physical shared memory, need to fill to start at beginning");
    return {size - start, SMStatusCode::WILL_WRAP};
}

ReadResult SharedBuffer::RefuseView(std::uint64_t index, std::uint64_t length) {
    const bool isIndex = index > ShmSize();
    const char* const what = isIndex ? " Invalid Read Index: " : " Invalid Read Length: ";
    SetError("DoReadData",
             what + to_string(isIndex ? index : length) + " Size: " + to_string(ShmSize()));
    return {{}, SMStatusCode::INVALID_PARAMETER};
}

PayloadResult SharedBuffer::RefusePayload(std::uint64_t length, std::uint64_t available) {
    SetError("DoReadPayload", " Trying to read " + to_string(length) + " bytes, but only " +
                                  to_string(available) + " bytes available to read");
    return {{}, 0, SMStatusCode::DATA_NOT_AVAILABLE};
}

std::string SharedBuffer::Room::PacketsText() const {
    return " Max packets: " + to_string(maxPackets) + " Num packets: " + to_string(numPackets);
}

std::string SharedBuffer::TextOf(Room room) const {
    if (room.maxPackets == 0) {
        room.numPackets = control_->numPackets.load();  // not looked at so far
    }
    return " Available: " + to_string(room.available) + room.PacketsText();
}

void SharedBuffer::SetError(const char* operation, const std::string& text) {
    errorString_ = std::string(operation) + " " + shmName_ + text;
}

void SharedBuffer::SetFirstError(const char* operation, const std::string& text) {
    if (errorString_.empty()) {
        SetError(operation, text);
    }
}

}  // namespace qel
