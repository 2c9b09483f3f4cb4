#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "ByteSpan.h"
#include "LogLevel.h"
#include "QevExport.h"
#include "SMStatusCode.h"

namespace qel {

/// Outcome of a write into the ring.
struct [[nodiscard]] WriteResult {
    /// On success the offset just past the record; on `WILL_WRAP` the bytes left before the end
    /// of the data area; otherwise 0.
    std::uint64_t index;
    SMStatusCode status;
};

/// Outcome of a look into the data area.
struct [[nodiscard]] ReadResult {
    ByteSpan data;  ///< view into the shared mapping, empty on failure
    SMStatusCode status;
};

/// Outcome of taking a payload.
struct [[nodiscard]] PayloadResult {
    ByteSpan data;        ///< view into the shared mapping, empty on failure
    std::uint64_t index;  ///< offset of the payload in the data area
    SMStatusCode status;
};

/// How full a ring is, in packets.
struct Capacity {
    std::string shmName;
    std::uint32_t maxPackets;  ///< packet limit, 0 for none
    std::uint32_t numPackets;  ///< packets in the ring; kept only while there is a limit
};

/// A ring of records in a named shared-memory object, seen from one node of a chain of up to five.
///
/// Node 0 writes records, each node hands on the bytes that it has finished to the next, and the
/// last node, the sink, gives them back to node 0 as free space. No operation waits, locks, or
/// makes a system call; none throws.
///
/// Thread use: one thread at a time uses one object. Any number of processes may use objects on
/// the same segment, as long as no two of them are the same node.
///
/// What a crash leaves: the segment outlives every process and is used again, with its counters as
/// they stand, by whoever opens the same name next. The library never unlinks it.
class QEV_EXPORT SharedBufferIF {
public:
    /// Description of a ring and of the caller's place in its chain.
    struct BufferInfo {
        std::string shmName;          ///< the object is "/" + shmName + ".shm"
        std::uint64_t shmSize = 0;    ///< bytes of the data area
        std::uint8_t nodeIdx = 0;     ///< 0 to 4; node 0 is the producer
        bool sink = false;            ///< last node of the chain; node 4 must be one
        std::uint32_t maxFrames = 0;  ///< limit of packets; counts in the process that opens first
    };

    SharedBufferIF();
    virtual ~SharedBufferIF();
    SharedBufferIF(const SharedBufferIF&) = delete;
    SharedBufferIF& operator=(const SharedBufferIF&) = delete;

    /// Hands `size` bytes that this node has finished to the next node; the sink gives them back
    /// to node 0 and counts `count` packets out.
    /// @return `SUCCESS`, or `INVALID_PARAMETER` when more was released than was out (clamped)
    SMStatusCode ReleaseData(std::uint64_t size, std::uint32_t count) {
        return DoReleaseData(size, count);
    }

    /// Writes a record of `header` and `payload` at this node's write index.
    /// @param isCritical  may use the room of five headers that ordinary writes leave free
    /// @return `SUCCESS`; `NOT_ENOUGH_SPACE` or `WILL_WRAP` with nothing written;
    ///         `INVALID_PARAMETER` when the accounting was clamped
    WriteResult WriteHeaderPayload(const ByteSpan& header, const ByteSpan& payload,
                                   bool isCritical) {
        return DoWriteHeaderPayload(header, payload, isCritical);
    }

    /// As `WriteHeaderPayload`, with a payload gathered from several views.
    /// @param dataSize  must be the sum of the sizes of `data`
    WriteResult WriteHeaderMultiData(const ByteSpan& header, const std::vector<ByteSpan>& data,
                                     std::uint64_t dataSize, bool isCritical) {
        return DoWriteHeaderMultiData(header, data, dataSize, isCritical);
    }

    /// Writes a fill record: `header`, then `skipSize` bytes that are left as they are.
    WriteResult WriteHeaderSkipPayload(const ByteSpan& header, std::uint64_t skipSize) {
        return DoWriteHeaderSkipPayload(header, skipSize);
    }

    /// View of `length` bytes of the data area from `index` on, cut at the end of the area.
    ReadResult ReadData(std::uint64_t index, std::uint64_t length) {
        return DoReadData(index, length);
    }

    /// View of the header of the next record; nothing is taken yet.
    /// @return `DATA_NOT_AVAILABLE` when fewer than `length` bytes wait for this node
    ReadResult ReadHeader(std::uint64_t length) { return DoReadHeader(length); }

    /// Takes the header last read and `length` bytes of payload behind it.
    /// @return `DATA_NOT_AVAILABLE` when fewer bytes wait for this node
    PayloadResult ReadPayload(std::uint64_t length) { return DoReadPayload(length); }

    /// Logs this node's index, the text of the last failure and every node's counters at `level`,
    /// then forgets the text. Does nothing when the level is disabled.
    void Print(LogLevel level) { DoPrint(level); }

    [[nodiscard]] Capacity GetCurrentCapacity() { return DoGetCurrentCapacity(); }

private:
    virtual SMStatusCode DoReleaseData(std::uint64_t size, std::uint32_t count) = 0;
    virtual WriteResult DoWriteHeaderPayload(const ByteSpan& header, const ByteSpan& payload,
                                             bool isCritical) = 0;
    virtual WriteResult DoWriteHeaderMultiData(const ByteSpan& header,
                                               const std::vector<ByteSpan>& data,
                                               std::uint64_t dataSize, bool isCritical) = 0;
    virtual WriteResult DoWriteHeaderSkipPayload(const ByteSpan& header,
                                                 std::uint64_t skipSize) = 0;
    virtual ReadResult DoReadData(std::uint64_t index, std::uint64_t length) = 0;
    virtual ReadResult DoReadHeader(std::uint64_t length) = 0;
    virtual PayloadResult DoReadPayload(std::uint64_t length) = 0;
    virtual void DoPrint(LogLevel level) = 0;
    virtual Capacity DoGetCurrentCapacity() = 0;

    /// Empty today; state can be added here without a change of the class layout.
    class Impl;
    std::unique_ptr<Impl> impl_;
};

/// Writes the fields of `info` on one line, without a line end.
QEV_EXPORT std::ostream& operator<<(std::ostream& stream, const SharedBufferIF::BufferInfo& info);

}  // namespace qel
