#include "Victim.h"

#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include "Forked.h"
#include "SharedValue.h"
#include "TrappedSys.h"

namespace qel::test {
namespace {

constexpr std::size_t kAvail = offsetof(ControlBlock, avail);
constexpr std::size_t kWriteIndex = offsetof(ControlBlock, wIdx);
constexpr std::size_t kReadIndex = offsetof(ControlBlock, rIdx);
constexpr std::size_t kNumPackets = offsetof(ControlBlock, numPackets);
constexpr std::size_t kInitialised = offsetof(ControlBlock, initialised);
constexpr std::size_t kMaxPackets = offsetof(ControlBlock, maxPackets);
constexpr std::size_t kSizes = offsetof(ControlBlock, halfSize);
constexpr std::size_t kNoField = std::numeric_limits<std::size_t>::max();

void Act(const RingImage& ring, const Operation& operation, std::uint8_t node, std::uint64_t kill,
         AccessTrap::Record& record) {
    AccessTrap trap(record);
    auto sys = std::make_shared<TrappedSys>(&trap);
    if (operation.opens) {
        trap.Start(kill);
        const auto buffer = ring.Open(node, sys);
        trap.Stop();
        return;
    }
    const auto buffer = ring.Open(node, sys);
    std::vector<Packet> held;
    held.reserve(static_cast<std::size_t>(operation.held));
    for (int count = 0; count < operation.held; ++count) {
        held.push_back(buffer->ReadNextPacket().packet);
    }
    trap.Start(kill);
    operation.act(*buffer, held);
    trap.Stop();
}

/// The place that names what an access is to: fields that are stored together are one.
std::size_t FieldAt(std::uint64_t offset) {
    if (offset >= sizeof(ControlBlock)) {
        return sizeof(ControlBlock);
    }
    return offset >= kSizes ? kSizes : offset;
}

std::uint64_t ValueAt(const RingImage::Bytes& bytes, std::size_t field) {
    std::uint64_t value = 0;
    std::memcpy(&value, bytes.data() + field,
                field == kNumPackets ? sizeof(std::uint32_t) : sizeof value);
    return value;
}

std::string StoreText(std::size_t field, std::uint8_t node, const std::string& change) {
    switch (field) {
        case sizeof(ControlBlock):
            return "header and payload copied";
        case kNumPackets:
            return "`numPackets`" + change;
        case kInitialised:
            return "`initialised` set";
        case kMaxPackets:
            return "`maxPackets` set";
        case kSizes:
            return "`halfSize`, `quarterSize` set";
        case kWriteIndex:
            return "`wIdx[0]` moved on";
        default:
            break;
    }
    if (field >= kReadIndex) {
        return "`rIdx[n]` moved on";
    }
    const auto counter = static_cast<std::uint8_t>((field - kAvail) / sizeof(std::uint64_t));
    const std::string index = counter == 0 || node == 0 ? std::to_string(counter)
                              : counter == node         ? "n"
                                                        : "n + 1";
    return "`avail[" + index + "]`" + change;
}

}  // namespace

Death Kill(const RingImage& ring, const Operation& operation, std::uint8_t node,
           std::uint64_t kill) {
    const SharedValue<AccessTrap::Record> record;
    const int status = WaitFor(Fork([&] { Act(ring, operation, node, kill, *record); }));
    if (!WasKilled(status) && status != 0) {
        throw std::runtime_error(operation.name + ": ended with status " + std::to_string(status));
    }
    if (record->count > AccessTrap::Record::kMost) {
        throw std::runtime_error(operation.name + ": too many accesses");
    }
    const auto first = record->accesses.begin();
    return {WasKilled(status), {first, first + static_cast<std::ptrdiff_t>(record->count)}};
}

Step LastStep(const Operation& operation, std::uint8_t node,
              const std::vector<AccessTrap::Access>& accesses, const RingImage::Bytes& before,
              const RingImage::Bytes& after) {
    std::size_t last = kNoField;
    int moves = 0;  // of the writer's index
    for (const auto& access : accesses) {
        const std::size_t field = FieldAt(access.offset);
        if (access.isWrite && field != last) {
            last = field;
            moves += field == kWriteIndex ? 1 : 0;
        }
    }
    const bool inFiller =
        operation.filler != 0 && (moves < 2 || (moves == 2 && last == kWriteIndex));
    const std::string name = operation.filler == 0 || inFiller ? operation.name : "write";
    if (last == kNoField) {
        return {name,
                operation.held > 1 ? "between reading and releasing" : "before its first change"};
    }
    if (inFiller && last == sizeof(ControlBlock)) {
        return {name, "filler's header copied"};
    }
    if (inFiller && last == kWriteIndex) {
        return {name, moves == 1 ? "`wIdx[0]` moved past the filler's header"
                                 : "`wIdx[0]` moved to the start"};
    }
    const bool lower = ValueAt(after, last) < ValueAt(before, last);
    return {name, StoreText(last, node, operation.fresh ? " set" : lower ? " lowered" : " raised")};
}

}  // namespace qel::test
