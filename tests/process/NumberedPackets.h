#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SharedPacketBufferIF.h"

namespace qel::test {

/// A sequence of packets of random sizes whose every byte follows from the packet's number, so that
/// whoever reads one can tell whether it is the right one and whole.
///
/// `pts` is the number, `timestampSec` its low half, `timestampUsec` a checksum of the payload.
class NumberedPackets {
public:
    explicit NumberedPackets(std::size_t largestPayload);

    /// Writes packet `number`: most plainly, some as critical ones, some gathered from parts. Empty
    /// parts included.
    SMStatusCode Write(SharedPacketBufferIF& buffer, std::uint64_t number);

    /// What is wrong with a packet that should be packet `number`; empty if nothing is.
    [[nodiscard]] std::string Fault(const Packet& packet, std::uint64_t number);

private:
    /// Payload of packet `number`.
    ByteSpan Payload(std::uint64_t number);

    std::size_t largestPayload_;
    std::vector<unsigned char> bytes_;
};

}  // namespace qel::test
