#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "Chain.h"
#include "PacketCommand.h"
#include "ReferencePacketBuffer.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"

namespace qel::test {

/// Does each command to the packet buffer and to the model, and compares all that can be seen.
class PacketRun {
public:
    PacketRun(const Chain& chain, reference::EventCounts& events)
        : chain_(chain),
          events_(events),
          twin_(chain),
          foreign_{
              std::make_unique<SharedBuffer>(twin_.Kernel(), chain.Info(0)),
              std::make_unique<reference::Node>(twin_.Expected(), events, chain.Info(0).shmName, 0,
                                                chain.Info(0).sink, chain.maxFrames)},
          nodes_(chain.nodes) {
        for (unsigned node = 0; node < chain.nodes; ++node) {
            Open(node, chain.maxFrames);
        }
    }

    void Do(const PacketCommand& command);
    /// Node 0 writes a record of its own making: its header, of any length, may say anything.
    void WriteRecord(reference::Bytes header, reference::Bytes payload, bool isCritical);
    void PrintAll();

private:
    /// One node twice, and the packets that it has read and not yet released.
    struct Pair {
        std::unique_ptr<SharedPacketBufferIF> actual;
        std::unique_ptr<reference::Node> ring;
        std::unique_ptr<reference::PacketNode> expected;
        std::deque<Packet> held;
    };

    /// A writer that is no packet buffer, twice.
    struct ForeignWriter {
        std::unique_ptr<SharedBufferIF> actual;
        std::unique_ptr<reference::Node> expected;
    };

    void Open(unsigned node, std::uint32_t maxFrames);
    void Write(const PacketCommand& command);
    void WriteInPlace(const PacketCommand& command);
    bool ReadNext(Pair& pair);
    void Release(Pair& pair);
    void ReleaseSeveral(Pair& pair, std::size_t count);
    void ReleaseWrong(Pair& pair, std::uint64_t dataSize);
    void PassAllOn();
    void ReadData(const PacketCommand& command);
    void CompareCapacity(Pair& pair);
    void ExpectNoByteLost();
    void Print(Pair& pair);
    [[nodiscard]] std::uint64_t PayloadLength(const PacketCommand& command, unsigned node);

    const Chain chain_;
    reference::EventCounts& events_;
    TwinSegment twin_;
    ForeignWriter foreign_;
    std::vector<Pair> nodes_;
};

}  // namespace qel::test
