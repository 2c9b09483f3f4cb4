#include "PayloadAlignment.h"

#include <gsl/util>

#include "ControlBlock.h"
#include "RingRules.h"

namespace qel {
namespace {

/// Bytes from `address` up to the next aligned one.
std::uint64_t Misalignment(std::uint64_t address) noexcept {
    return (kPayloadAlignment - address % kPayloadAlignment) % kPayloadAlignment;
}

/// True if the ring puts a record of `length` bytes at `start`, and not a filler.
bool Fits(std::uint64_t start, std::uint64_t length, std::uint64_t ringSize) noexcept {
    const std::uint64_t end = start + length;
    return end == ringSize || end + kPacketHeaderSize <= ringSize;
}

}  // namespace

std::uint64_t WriteIndexOf(SharedPacketBufferIF& ring, unsigned node) {
    // The control block stands right ahead of the data area in every mapping.
    const ByteSpan area = ring.ReadData(0, 0).data;
    const auto* const control =
        reinterpret_cast<const ControlBlock*>(area.data() - sizeof(ControlBlock));
    return gsl::at(control->wIdx, static_cast<gsl::index>(node)).load();
}

std::optional<std::uint64_t> PaddingAhead(std::uint64_t writeIndex, std::uint64_t payload,
                                          std::uint64_t ringSize, std::uint64_t behind) noexcept {
    const std::uint64_t record = kPacketHeaderSize + payload + behind;
    constexpr std::uint64_t kMostPadding = kPacketHeaderSize + kPayloadAlignment;
    if (payload > ringSize / 2 || record + kMostPadding + kCriticalReserve > ringSize ||
        writeIndex > ringSize - kPacketHeaderSize) {
        return std::nullopt;
    }
    // Mappings begin at a page, so only what follows from there counts.
    const std::uint64_t address = kControlBlockSize + writeIndex + kPacketHeaderSize;
    if (Misalignment(address) == 0 && Fits(writeIndex, record, ringSize)) {
        return std::nullopt;
    }
    const std::uint64_t padding = Misalignment(address + kPacketHeaderSize);
    if (Fits(writeIndex + kPacketHeaderSize + padding, record, ringSize)) {
        return padding;
    }
    return ringSize - writeIndex - kPacketHeaderSize;
}

}  // namespace qel
