#pragma once

#include <rapidcheck.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "CapturedLog.h"
#include "FakeKernel.h"
#include "ReferenceRing.h"
#include "SharedBufferIF.h"

namespace qel::test {

/// Description of a random chain.
struct Chain {
    std::uint64_t size;
    unsigned nodes;  ///< 1 to 5; the last one is the sink
    std::uint32_t maxFrames;
    bool orderly;  ///< nodes release what they took, and nobody damages the control block

    [[nodiscard]] SharedBufferIF::BufferInfo Info(unsigned node) const;
};
std::ostream& operator<<(std::ostream& stream, const Chain& chain);

/// Chains with data areas from 0 bytes up; tiny ones and small packet limits are frequent.
rc::Gen<Chain> ArbitraryChain();
std::uint32_t FrameLimit(unsigned choice);

/// One segment twice: in a substitute kernel and as the model has it.
class TwinSegment {
public:
    explicit TwinSegment(const Chain& chain);

    /// Fails the running case unless control block and data area are as the model has them.
    void Compare() const;
    /// Fails it unless a view shows the bytes that the model says.
    void CompareView(const ByteSpan& actual, const reference::Seen& expected) const;
    /// Fails it unless the ring logged exactly this dump since the last call.
    void CompareDump(const std::string& expected);
    void ForgetDumps() { log_.Forget(); }
    /// Fails it if anything was logged.
    void CompareSilence() const;
    /// What a peer that went wrong may leave behind: writes one field of the control block.
    void Forge(std::size_t offset, std::size_t width, std::uint64_t value);

    [[nodiscard]] reference::Segment& Expected() { return expected_; }
    [[nodiscard]] std::shared_ptr<SysIF> Kernel() const { return kernel_; }

    /// Bytes that no earlier call has returned in this order.
    reference::Bytes FreshBytes(std::uint64_t count);

private:
    [[nodiscard]] unsigned char* Memory() const;

    std::shared_ptr<FakeKernel> kernel_ = std::make_shared<FakeKernel>();
    reference::Segment expected_;
    CapturedLog log_;
    std::uint32_t pattern_ = 1;
};

void CompareStatus(SMStatusCode actual, reference::Status expected);
ByteSpan SpanOf(reference::Bytes& bytes);
std::vector<ByteSpan> SpansOf(std::vector<reference::Bytes>& parts);
/// Cuts bytes into one to five parts, some of them empty.
std::vector<reference::Bytes> Cut(const reference::Bytes& bytes, unsigned choice);

/// Fails the running test unless random operations met each of these situations, and reports how
/// often.
void ExpectAllMet(const reference::EventCounts& events, const std::vector<std::string>& situations);

}  // namespace qel::test
