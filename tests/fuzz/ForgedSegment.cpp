#include "ForgedSegment.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <string>

#include "Ends.h"
#include "Interference.h"
#include "PacketHeader.h"

namespace qel::fuzz {
namespace {

constexpr std::size_t kWordFields = 15;  ///< avail, wIdx and rIdx of five nodes
constexpr std::size_t kNumPackets = 120;
constexpr std::size_t kInitialised = 124;
constexpr std::size_t kMaxPackets = 128;

Intrusion FieldFrom(Input& input, std::uint64_t size) {
    const unsigned field = input.Choice(20);
    if (field < kWordFields) {
        return {0, 8 * std::size_t{field}, 8, input.Edge(size)};
    }
    switch (field) {
        case 15:
            return {0, kNumPackets, 4, input.Take<std::uint32_t>()};
        case 16:
            return {0, kNumPackets, 4, input.Take<std::uint8_t>()};
        case 17:
            return {0, kMaxPackets, 4, input.Take<std::uint32_t>()};
        case 18:
            return {0, kMaxPackets, 4, input.Take<std::uint8_t>()};
        default:
            return {0, kInitialised, 1, input.Take<std::uint8_t>()};
    }
}

std::uint64_t WordAt(const unsigned char* memory, std::size_t word) {
    std::uint64_t value = 0;
    std::memcpy(&value, memory + 8 * word, sizeof(value));
    return value;
}

}  // namespace

ForgedSegment::ForgedSegment(Input& input) : size_(input.RingSize()) {
    const int fd = kernel_->shm_open("/forged.shm", O_RDWR | O_CREAT, 0600);
    (void)kernel_->ftruncate(fd, static_cast<long>(size_ + sizeof(ControlBlock)));
    (void)kernel_->close(fd);
    if (input.Flag()) {
        const Bytes control = input.TakeBytes(sizeof(ControlBlock));
        std::copy(control.begin(), control.end(), Memory());
    } else {
        for (std::size_t i = input.Choice(20); i != 0; --i) {
            ForgeField(input);
        }
    }
    ForgeData(input);
}

void ForgedSegment::Forge(Input& input) {
    if (input.Flag()) {
        ForgeField(input);
    } else {
        ForgeData(input);
    }
}

void ForgedSegment::ForgeField(Input& input) {
    const Intrusion field = FieldFrom(input, size_);
    std::memcpy(Memory() + field.offset, &field.value, field.width);
}

/// Puts what looks like a packet's header anywhere: often where a node reads next.
void ForgedSegment::ForgeData(Input& input) {
    Bytes bytes = input.TakeBytes(kPacketHeaderSize - 8);
    const std::uint64_t length = input.Edge(size_);
    const auto* const first = reinterpret_cast<const unsigned char*>(&length);
    bytes.insert(bytes.begin(), first, first + sizeof(length));
    const std::uint64_t start =
        input.Flag() ? WordAt(Memory(), 10 + input.Choice(5)) : input.Edge(size_);
    for (std::size_t i = 0; i < bytes.size() && start < size_ && i < size_ - start; ++i) {
        Memory()[sizeof(ControlBlock) + start + i] = bytes[i];
    }
}

void ForgedSegment::PlanIntrusion(Input& input) {
    const unsigned loads = 1 + input.Choice(12);
    Intrusion intrusion = FieldFrom(input, size_);
    intrusion.loads = loads;
    Plan(Memory(), intrusion);
}

void ForgedSegment::Remember() {
    before_.assign(Memory(), Memory() + sizeof(ControlBlock) + size_);
}

void ForgedSegment::RequireUnchanged() const {
    Require(std::equal(before_.begin(), before_.end(), Memory()),
            "an operation that refuses changes nothing");
}

void ForgedSegment::RequireDoneBy(unsigned node, unsigned receiver, bool mayWriteData) const {
    const auto isOf = [&](std::size_t word) {
        return word == node || word == receiver || word == 5 + node || word == 10 + node;
    };
    for (std::size_t word = 0; word < kWordFields; ++word) {
        const std::uint64_t before = WordAt(before_.data(), word);
        const std::uint64_t after = WordAt(Memory(), word);
        if (before == after) {
            continue;
        }
        Require(isOf(word), "a node changes no field of others");
        const bool isCounter = word < kMaxNodes;
        Require(!isCounter || after <= std::max(size_, before), "no counter exceeds the size");
        Require(isCounter || after < size_ || after == 0, "an index is brought into the ring");
    }
    const auto differs = [this](std::size_t from, std::size_t to) {
        return !std::equal(before_.data() + from, before_.data() + to, Memory() + from);
    };
    Require(!differs(kInitialised, sizeof(ControlBlock)), "what was set once stays");
    Require(mayWriteData || !differs(sizeof(ControlBlock), before_.size()),
            "only writing changes the data area");
}

void ForgedSegment::RequireWithin(const ByteSpan& view) const {
    if (!view.empty()) {
        Require(view.data() >= Area() && view.data() <= Area() + size_ &&
                    view.size() <= static_cast<std::size_t>(Area() + size_ - view.data()),
                "a view lies in the data area");
        Touch(view.data(), view.size());
    }
}

}  // namespace qel::fuzz
