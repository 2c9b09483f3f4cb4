#pragma once

#include <string>
#include <vector>

#include "StreamReader.h"
#include "StreamWriter.h"

namespace qel::test {

/// Description of a node of a stream whose ring has `size` bytes.
inline StreamOptions Options(const std::string& name, std::uint8_t node, bool sink,
                             std::uint64_t size = 100000) {
    return {name, size, node, sink, 0, WakeUp::Semaphore};
}

/// A packet of the byte `fill` as a writer sends it.
class NumberedPacket {
public:
    explicit NumberedPacket(std::int64_t pts, std::size_t size = 10)
        : bytes_(size, static_cast<unsigned char>(pts)) {
        outgoing_.packet.header.pts = pts;
        outgoing_.packet.data = bytes_;
        outgoing_.head = MakeFrameHead(outgoing_.packet, size);
    }
    NumberedPacket(const NumberedPacket&) = delete;
    NumberedPacket& operator=(const NumberedPacket&) = delete;

    StreamWriter::Outgoing& Get() { return outgoing_; }

    WriteOutcome SendBy(StreamWriter& writer) { return writer.TryWrite(outgoing_); }

    /// Tries again as long as there is no room.
    WriteOutcome SendWaitingBy(StreamWriter& writer) {
        WriteOutcome outcome = SendBy(writer);
        while (outcome == WriteOutcome::Stopped) {
            writer.Wait();
            outcome = SendBy(writer);
        }
        return outcome;
    }

private:
    std::vector<unsigned char> bytes_;
    StreamWriter::Outgoing outgoing_;
};

/// Units of the semaphore that wakes `node`.
inline int WakeUps(const std::string& name, unsigned node) {
    return SystemSemaphore(StreamNames(name).WakeUp(node), SystemSemaphore::IfMissing::Refuse)
        .Value();
}

/// Time stamp of what `reader` finds next; -100 if nothing waits.
inline std::int64_t NextPts(StreamReader& reader) {
    const auto received = reader.TryNext();
    return received ? received->packet.header.pts : -100;
}

}  // namespace qel::test
