#pragma once

#include "ByteSpan.h"
#include "PacketHeader.h"

namespace qel {

/// A packet header with a view of the payload. The payload is not owned: on writing it is the
/// client's, on reading it lies in the shared mapping and is valid until the packet is released.
struct Packet {
    PacketHeader header;
    ByteSpan data;
};

}  // namespace qel
