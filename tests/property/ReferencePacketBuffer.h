#pragma once

#include <cstdint>
#include <vector>

#include "ReferenceRing.h"

namespace qel::test::reference {

/// The fields of a packet header, as numbers.
struct Fields {
    std::uint64_t length = 0;
    bool ignoreData = false;
    std::int64_t pts = 0;
    bool key = false;
    std::uint32_t timestampSec = 0;
    std::uint32_t timestampUsec = 0;

    /// The header as bytes in the ring.
    [[nodiscard]] Bytes Image() const;
};

struct ReadPacket {
    Bytes header;  ///< as bytes, because damaged rings hold headers that are no fields
    Seen data;
    std::uint64_t index;
};

/// A plain model of the packet operations on top of the model of the ring.
class PacketNode {
public:
    PacketNode(Node& ring, EventCounts& events) : ring_(ring), events_(events) {}

    Status Write(const Fields& fields, const Bytes& payload, bool critical);
    Status WriteMultiData(const Fields& fields, const std::vector<Bytes>& spans);
    /// The room for a payload of up to `size` bytes at node `node`, which is this one.
    Seen Reserve(Segment& segment, unsigned node, std::uint64_t size);
    /// Puts the payload where it was reserved.
    Status Commit(Segment& segment, std::uint64_t place, Fields fields, const Bytes& payload);
    ReadPacket ReadNext(const Segment& segment);
    Status Release(std::uint64_t dataSize);
    Status ReleaseSeveral(const std::vector<std::uint64_t>& dataSizes);

private:
    Status Fill(std::uint64_t room);
    Status WriteAll(Fields fields, const std::vector<Bytes>& spans, bool critical);

    Node& ring_;
    EventCounts& events_;
};

}  // namespace qel::test::reference
