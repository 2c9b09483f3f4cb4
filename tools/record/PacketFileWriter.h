#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ByteSpan.h"
#include "PacketFile.h"

namespace qel {

/// Writes a recording's entries, whole ones only as long as the sink takes what it gets.
///
/// Thread use: one thread at a time.
class PacketFileWriter {
public:
    /// Takes all of the bytes; false if it was asked to stop, which leaves an entry torn.
    using Sink = std::function<bool(const ByteSpan&)>;

    explicit PacketFileWriter(Sink sink) : sink_(std::move(sink)) {}

    /// To be called first, once. Names longer than 255 bytes are cut.
    /// @param begun  nanoseconds since 1970
    void Begin(const std::string& ringName, std::uint64_t ringSize, std::int64_t begun);

    /// @param time    nanoseconds since the recording began
    /// @param header  its length is that of the payload
    /// @return false if the sink has stopped
    bool Packet(std::uint64_t time, const PacketHeader& header, const ByteSpan& payload);
    bool Mark(std::uint64_t time, PacketFileKind kind);

    /// Gives all that was written to the sink.
    bool Flush();

private:
    void Append(const void* bytes, std::size_t size);

    Sink sink_;
    std::vector<unsigned char> waiting_;
};

}  // namespace qel
