#pragma once

#include <cstdint>
#include <memory>

#include "ControlBlock.h"
#include "FakeKernel.h"
#include "Input.h"
#include "SharedBufferIF.h"

namespace qel::fuzz {

/// A ring's segment in which everything is forged, and what operations may make of it. It lies in
/// a substitute kernel, which poisons the bytes behind it.
class ForgedSegment {
public:
    explicit ForgedSegment(Input& input);

    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node, bool sink,
                                                  std::uint32_t maxFrames) const {
        return {"forged", size_, node, sink, maxFrames};
    }
    [[nodiscard]] std::shared_ptr<SysIF> Kernel() const { return kernel_; }
    [[nodiscard]] std::uint64_t Size() const { return size_; }
    [[nodiscard]] const ControlBlock& Control() const {
        return *reinterpret_cast<const ControlBlock*>(Memory());
    }

    /// Another process writes a field of the control block, or some bytes of the data area.
    void Forge(Input& input);
    /// Another process is to write a field during the next operation.
    void PlanIntrusion(Input& input);

    /// Remembers all bytes as they stand ahead of an operation.
    void Remember();
    /// Fails unless the last operation was one that `node`, which hands on to `receiver`, may have
    /// done. After an intrusion nothing can be said.
    void RequireDoneBy(unsigned node, unsigned receiver, bool mayWriteData) const;
    /// Fails if the last operation has changed anything.
    void RequireUnchanged() const;
    /// Fails unless a view lies in the data area; touches all of it.
    void RequireWithin(const ByteSpan& view) const;

private:
    [[nodiscard]] unsigned char* Memory() const { return kernel_->MemoryOf("/forged.shm"); }
    [[nodiscard]] const unsigned char* Area() const { return Memory() + sizeof(ControlBlock); }
    void ForgeField(Input& input);
    void ForgeData(Input& input);

    std::shared_ptr<test::FakeKernel> kernel_ = std::make_shared<test::FakeKernel>();
    std::uint64_t size_;
    Bytes before_;
};

}  // namespace qel::fuzz
