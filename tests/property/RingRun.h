#pragma once

#include <memory>
#include <vector>

#include "Chain.h"
#include "ReferenceRing.h"
#include "RingCommand.h"
#include "SharedBuffer.h"

namespace qel::test {

/// Does each command to the ring and to the model, and compares all that can be seen.
class RingRun {
public:
    RingRun(const Chain& chain, reference::EventCounts& events)
        : chain_(chain), events_(events), twin_(chain), pairs_(chain.nodes) {
        for (unsigned node = 0; node < chain.nodes; ++node) {
            Open(node, chain.maxFrames);
        }
    }

    void Do(const RingCommand& command);
    void PrintAll();

private:
    struct Pair {
        std::unique_ptr<SharedBufferIF> actual;
        std::unique_ptr<reference::Node> expected;
    };

    /// Mostly node 0; others may write too, into the bytes that they have been handed.
    [[nodiscard]] unsigned Writer(const RingCommand& command) const {
        return command.node < 5 ? 0 : command.node % chain_.nodes;
    }
    void Open(unsigned node, std::uint32_t maxFrames);
    void OpenLarger(const RingCommand& command);
    void WritePayload(const RingCommand& command);
    void WriteMultiData(const RingCommand& command);
    void WriteSkip(const RingCommand& command);
    void Skip(unsigned node, std::uint64_t headerLength, std::uint64_t skipSize);
    void FillToEnd(unsigned node);
    void ReadHeader(unsigned node, std::uint64_t length);
    void ReadPayload(unsigned node, std::uint64_t length);
    void ReadData(const RingCommand& command);
    void Pass(unsigned node, std::uint64_t headerLength, std::uint64_t all);
    void Release(const RingCommand& command);
    void Release(unsigned node, std::uint64_t size, std::uint32_t count);
    void Print(unsigned node);
    void Forge(const RingCommand& command);

    [[nodiscard]] std::uint64_t Available(unsigned node) { return twin_.Expected().avail.at(node); }
    [[nodiscard]] std::uint64_t ToEnd(unsigned node) {
        return chain_.size - twin_.Expected().wIdx.at(node);
    }
    [[nodiscard]] std::uint64_t PayloadLength(const RingCommand& command, unsigned node,
                                              std::uint64_t headerLength);
    [[nodiscard]] std::uint64_t TakenLength(const RingCommand& command, unsigned node);
    void CompareWritten(const WriteResult& actual, const reference::Written& expected);

    const Chain chain_;
    reference::EventCounts& events_;
    TwinSegment twin_;
    std::vector<Pair> pairs_;
};

}  // namespace qel::test
