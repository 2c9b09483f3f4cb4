// What a chain's nodes do to the segment, and what must hold at every step.

#include <string>

#include "SteppedChain.h"

namespace qel::test {
namespace {

constexpr std::size_t kIndices = offsetof(ControlBlock, wIdx);
constexpr std::size_t kEndOfIndices = offsetof(ControlBlock, numPackets);

const char* NameOf(Access access) {
    switch (access) {
        case Access::Load:
            return "load";
        case Access::Store:
            return "store";
        case Access::Add:
            return "add";
        case Access::Subtract:
            return "subtract";
        case Access::Exchange:
            return "exchange";
    }
    return "?";
}

std::string FieldAt(std::size_t offset) {
    constexpr std::array<const char*, 3> kNames{"avail", "wIdx", "rIdx"};
    if (offset == offsetof(ControlBlock, numPackets)) {
        return "numPackets";
    }
    const std::size_t word = offset / 8;
    return std::string(kNames.at(word / kMaxNodes)) + "[" + std::to_string(word % kMaxNodes) + "]";
}

}  // namespace

const ControlBlock& SteppedChain::Control() const {
    return *reinterpret_cast<const ControlBlock*>(world_.segment.data());
}

std::size_t SteppedChain::OffsetOf(const volatile void* address) const {
    const auto* const byte = static_cast<const volatile unsigned char*>(address);
    const unsigned char* const begin = world_.segment.data();
    const bool isInside = byte >= begin && byte < begin + sizeof(ControlBlock) + plan_.size;
    return isInside ? static_cast<std::size_t>(byte - begin) : world_.segment.size();
}

void SteppedChain::Record(const std::string& text) {
    trace_->push_back(std::to_string(search_.Current()) + ": " + text);
}

void SteppedChain::BeforeAtomic(const volatile void* address, bool isSequential) {
    const std::size_t offset = OffsetOf(address);
    if (!search_.IsRunning() || offset == world_.segment.size()) {
        return;
    }
    if (!isSequential) {
        search_.Fail("an access is not sequentially consistent");
    }
    if (offset >= kIndices && offset < kEndOfIndices) {
        // Nobody else reads or stores it, so that its place among others' steps does not matter.
        if (offset / 8 % kMaxNodes != search_.Current()) {
            search_.Fail("an index is touched by another node");
        }
        return;
    }
    search_.Step();
}

void SteppedChain::AfterAtomic(const volatile void* address, Access access, std::uint64_t before,
                               std::uint64_t after) {
    const std::size_t offset = OffsetOf(address);
    if (!search_.IsRunning() || offset == world_.segment.size()) {
        return;
    }
    if (trace_ != nullptr) {
        Record(std::string(NameOf(access)) + " " + FieldAt(offset));
    }
    search_.Note(offset * 8 + static_cast<std::size_t>(access));
    search_.Note(before);
    if (access != Access::Load) {
        search_.NoteChange();
    }
    if (offset < kIndices) {
        OnCounter(offset / 8, access, before, after);
    } else if (offset == offsetof(ControlBlock, numPackets) && Control().maxPackets != 0 &&
               after > Control().maxPackets) {
        search_.Fail("more packets than the limit");
    }
}

void SteppedChain::OnCounter(std::size_t counter, Access access, std::uint64_t before,
                             std::uint64_t after) {
    const std::size_t node = search_.Current();
    if (access == Access::Load) {
        world_.lastSeen.at(node) = after;
        return;
    }
    // A counter that is stored is meant to change by what the node knows of it.
    const std::uint64_t known = access == Access::Store ? world_.lastSeen.at(node) : before;
    const auto change = static_cast<std::int64_t>(after - known);
    world_.taken.at(node) -= change;
    if (change < 0 && counter != node) {
        search_.Fail("a counter is lowered by another node");
    }
    if (counter == 0 && change > 0) {
        FreeBytes(after - known);
    }
    CheckBytes();
}

void SteppedChain::FreeBytes(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        world_.live.at((world_.freed + i) % plan_.size) = false;
    }
    world_.freed = (world_.freed + count) % plan_.size;
}

void SteppedChain::CheckBytes() {
    std::uint64_t sum = 0;
    for (std::size_t node = 0; node < plan_.nodes; ++node) {
        const std::uint64_t available = Control().avail.at(node).load();
        if (available > plan_.size || world_.taken.at(node) < 0) {
            search_.Fail("a counter is out of range");
        }
        sum += available + static_cast<std::uint64_t>(world_.taken.at(node));
    }
    if (sum != plan_.size) {
        search_.Fail("bytes are not conserved");
    }
}

void SteppedChain::BeforePlain(const volatile void* address, std::size_t size, bool isWrite) {
    const std::size_t offset = OffsetOf(address);
    if (!search_.IsRunning() || offset == world_.segment.size()) {
        return;
    }
    if (offset >= sizeof(ControlBlock)) {
        search_.Step();
    }
    if (trace_ != nullptr) {
        Record(std::string(isWrite ? "write " : "read ") + std::to_string(size));
    }
    search_.Note(offset * 4 + (isWrite ? 1 : 0));
    for (std::size_t i = offset; i < offset + size; ++i) {
        if (!isWrite) {
            search_.Note(world_.segment.at(i));
            continue;
        }
        if (i < sizeof(ControlBlock) || world_.live.at(i - sizeof(ControlBlock))) {
            search_.Fail("a packet is overwritten");
        }
        world_.live.at(i - sizeof(ControlBlock)) = true;
    }
}

std::string SteppedChain::AtEnd() {
    const ControlBlock& control = Control();
    if (control.numPackets.load() != 0 || control.avail[0].load() != plan_.size) {
        return "the empty ring counts bytes or packets";
    }
    for (std::size_t node = 1; node < plan_.nodes; ++node) {
        if (control.rIdx.at(node).load() != control.wIdx[0].load()) {
            return "a node ends at another index than the writer";
        }
    }
    return "";
}

}  // namespace qel::test
