#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "CapturedLog.h"
#include "ControlBlock.h"
#include "FakeKernel.h"
#include "SharedBuffer.h"
#include "SysFactory.h"
#include "UniqueRingName.h"

namespace qel::test {

using Bytes = std::vector<unsigned char>;

/// `count` bytes that count up from `first`.
inline Bytes CountingBytes(std::size_t count, unsigned char first) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

inline Bytes BytesIn(const ByteSpan& view) {
    return {view.begin(), view.end()};
}

/// The text of the last failure that `ring` keeps. Taking it clears it.
inline std::string TakeErrorText(SharedBufferIF& ring) {
    const CapturedLog log;
    ring.Print(LogLevel::Warning);
    const std::string text = log.Records().at(0).text;
    const std::string label = "\n Error String: ";
    const auto start = text.find(label) + label.size();
    return text.substr(start, text.find("\n  Node[0]", start) - start);
}

/// A ring and a look into its segment that does not go through the code under test.
class RingHarness {
public:
    static constexpr std::uint64_t kSize = 1024;
    static constexpr std::uint64_t kHeader = 26;
    static constexpr std::uint64_t kReserve = 130;

    explicit RingHarness(std::shared_ptr<SysIF> sys, std::uint64_t size = kSize)
        : sys_(std::move(sys)), size_(size) {}
    ~RingHarness() {
        if (segment_ != nullptr) {
            sys_->munmap(segment_, SegmentSize());
        }
    }
    RingHarness(const RingHarness&) = delete;
    RingHarness& operator=(const RingHarness&) = delete;

    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node, bool sink = false,
                                                  std::uint32_t maxFrames = 0) const {
        return {name_.Name(), size_, node, sink, maxFrames};
    }

    /// The ring as `node` sees it.
    template <typename Ring = SharedBuffer>
    std::unique_ptr<Ring> Open(std::uint8_t node, bool sink = false, std::uint32_t maxFrames = 0) {
        return std::make_unique<Ring>(sys_, Info(node, sink, maxFrames));
    }

    /// The segment's control block; somebody must have opened the ring.
    ControlBlock& Control() { return *static_cast<ControlBlock*>(Segment()); }
    unsigned char* Data() { return static_cast<unsigned char*>(Segment()) + sizeof(ControlBlock); }
    Bytes DataAt(std::uint64_t index, std::size_t length) {
        return {Data() + index, Data() + index + length};
    }

    /// All bytes of the segment.
    Bytes Snapshot() {
        const auto* const start = static_cast<unsigned char*>(Segment());
        return {start, start + SegmentSize()};
    }

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] std::string ObjectName() const { return name_.ObjectName(); }
    [[nodiscard]] const std::shared_ptr<SysIF>& System() const { return sys_; }
    [[nodiscard]] std::uint64_t SegmentSize() const { return size_ + sizeof(ControlBlock); }

private:
    void* Segment() {
        if (segment_ == nullptr) {
            const int fd = sys_->shm_open(ObjectName().c_str(), O_RDWR, 0);
            void* const start =
                sys_->mmap(nullptr, SegmentSize(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            sys_->close(fd);
            if (start == MAP_FAILED) {
                throw std::runtime_error("cannot look into " + ObjectName());
            }
            segment_ = start;
        }
        return segment_;
    }

    UniqueRingName name_;
    std::shared_ptr<SysIF> sys_;
    std::uint64_t size_;
    void* segment_ = nullptr;
};

/// Whose kernel objects a ring stands on.
enum class Kernel { Substitute, Real };

inline std::shared_ptr<SysIF> SystemOf(Kernel kernel) {
    if (kernel == Kernel::Real) {
        return SysFactory::Create("");
    }
    return std::make_shared<FakeKernel>();
}

/// Behaviour of the ring that holds on every kernel.
class RingTest : public testing::TestWithParam<Kernel>, protected RingHarness {
protected:
    RingTest() : RingHarness(SystemOf(GetParam())) {}

    /// A header and a payload of `length` bytes, written by `ring`.
    WriteResult Write(SharedBufferIF& ring, std::size_t length, bool isCritical = false) {
        payload_.resize(length, 0xAA);
        return ring.WriteHeaderPayload(header_, payload_, isCritical);
    }
    /// A fill record of `length` bytes behind its header.
    WriteResult Fill(SharedBufferIF& ring, std::uint64_t length) {
        return ring.WriteHeaderSkipPayload(header_, length);
    }

    Bytes header_ = CountingBytes(kHeader, 1);
    Bytes payload_;
};

inline std::string NameOf(const testing::TestParamInfo<Kernel>& parameter) {
    return parameter.param == Kernel::Real ? "Real" : "Substitute";
}

#define QEV_ON_EVERY_KERNEL(Suite)                                                              \
    INSTANTIATE_TEST_SUITE_P(Kernels, Suite, testing::Values(Kernel::Substitute, Kernel::Real), \
                             NameOf)

/// The ring on substitute kernel objects, where calls can be seen and refused.
class SubstituteRing : public testing::Test, protected RingHarness {
protected:
    SubstituteRing() : SubstituteRing(std::make_shared<FakeKernel>()) {}

    FakeKernel& Kernel() { return *kernel_; }

private:
    explicit SubstituteRing(std::shared_ptr<FakeKernel> kernel)
        : RingHarness(kernel), kernel_(std::move(kernel)) {}

    std::shared_ptr<FakeKernel> kernel_;
};

}  // namespace qel::test
