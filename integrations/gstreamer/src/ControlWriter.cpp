#include "ControlWriter.h"

namespace qel {

ControlWriter::ControlWriter(SharedPacketBufferIF& ring, std::uint64_t size)
    : packets_(ring, size, WaitMode::Yield, [] { return true; }), size_(size) {}

bool ControlWriter::TryWrite(ControlHead& head, const std::string& text, bool mayWait) {
    Packet packet;
    packet.header.pts = head.pts;
    packet.header.timestampSec = head.control.timeStamp;
    packet.data = BytesOf(head);
    WriteOutcome outcome = WriteOutcome::Broken;
    if (text.empty()) {
        outcome = packets_.Write(packet);
    } else {
        // The ring copies from the text; spans of constant bytes do not exist there.
        auto* const bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
        outcome = packets_.WriteGathered(packet, {packet.data, {bytes, text.size()}});
    }
    if (outcome == WriteOutcome::Written) {
        written_ += kPacketHeaderSize + sizeof head + text.size();
        fullSince_.reset();
        return true;
    }
    if (outcome == WriteOutcome::Stopped) {
        const bool isInUse = written_ > size_;
        fullSince_ = fullSince_.value_or(Clock::now());
        if (isInUse || (mayWait && Clock::now() - *fullSince_ < kPatience)) {
            return false;
        }
    }
    dropped_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

}  // namespace qel
