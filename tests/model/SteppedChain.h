#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ControlBlock.h"
#include "Interleavings.h"
#include "SharedPacketBufferIF.h"
#include "SteppedAccess.h"
#include "SysIF.h"

namespace qel::test {

struct PlannedPacket {
    std::size_t length;
    bool critical;
};

struct ChainPlan {
    std::uint64_t size;  ///< of the data area, at most SteppedChain::kLargest
    unsigned nodes;      ///< the last one is the sink
    std::uint32_t maxFrames;
    std::size_t kept;  ///< packets that a reader keeps while more come
    std::vector<PlannedPacket> packets;
};

/// A chain of the library's own packet buffers on one segment in memory, each step of which the
/// search places: what nodes do stands in SteppedChain.cpp, what is checked in
/// SteppedChainChecks.cpp. What must hold is checked at every step:
///  - the bytes of `avail` and those that nodes have taken add up to the size,
///  - no byte is overwritten between its writing and the sink's release,
///  - every packet arrives once, in order and whole, and is still whole when it is released,
///  - no operation reports more than "not now": nothing is clamped, no payload is missing,
///  - the packet limit holds,
///  - every atomic access is sequentially consistent, so that the orders of steps are all there is,
///  - an index is touched by its node only, a counter lowered by its node only,
///  - somebody can go on; at the end the ring is empty and all counters tell so.
class SteppedChain : private AccessObserver {
public:
    static constexpr std::size_t kLargest = 256;

    explicit SteppedChain(ChainPlan plan);
    ~SteppedChain() override;
    SteppedChain(const SteppedChain&) = delete;
    SteppedChain& operator=(const SteppedChain&) = delete;

    Interleavings::Result SearchAll(unsigned preemptions = Interleavings::kAnyNumber);
    Interleavings::Result SearchRandomly(unsigned seed, std::uint64_t runs);

    /// The accesses to the segment of one run in which every node goes on as long as it can:
    /// "0: load avail[0]".
    std::vector<std::string> Trace();

private:
    /// All that makes up a state, besides what nodes remember.
    struct World {
        alignas(64) std::array<unsigned char, sizeof(ControlBlock) + kLargest> segment;
        // Beside the protocol:
        std::array<std::int64_t, kMaxNodes> taken;      ///< and not handed on yet
        std::array<std::uint64_t, kMaxNodes> lastSeen;  ///< in a counter, by each node
        std::uint64_t freed;                            ///< where the sink's next release begins
        std::array<bool, kLargest> live;                ///< written and not released by the sink
    };

    void BeforeAtomic(const volatile void* address, bool isSequential) override;
    void AfterAtomic(const volatile void* address, Access access, std::uint64_t before,
                     std::uint64_t after) override;
    void BeforePlain(const volatile void* address, std::size_t size, bool isWrite) override;

    Interleavings::Run NewRun();
    void Write(SharedPacketBufferIF& buffer);
    void Read(SharedPacketBufferIF& buffer, std::size_t node);
    void CheckPacket(const ReadNextPacketResult& read, std::size_t number);
    void Release(SharedPacketBufferIF& buffer, const Packet& packet);
    void OnCounter(std::size_t counter, Access access, std::uint64_t before, std::uint64_t after);
    void FreeBytes(std::uint64_t count);
    void CheckBytes();
    [[nodiscard]] std::string AtEnd();

    [[nodiscard]] const ControlBlock& Control() const;
    /// Offset in the segment; its length for anything outside.
    [[nodiscard]] std::size_t OffsetOf(const volatile void* address) const;
    void Record(const std::string& text);

    ChainPlan plan_;
    World world_{};
    Interleavings search_;
    std::shared_ptr<SysIF> kernel_;
    std::vector<std::unique_ptr<SharedPacketBufferIF>> buffers_;
    std::vector<std::string>* trace_ = nullptr;
};

}  // namespace qel::test
