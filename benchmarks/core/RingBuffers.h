#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "SharedPacketBufferIF.h"

namespace qel::bench {

/// Both ends of a ring of two nodes, in this process, with all pages present.
struct RingPair {
    explicit RingPair(std::uint64_t size);
    ~RingPair();
    RingPair(const RingPair&) = delete;
    RingPair& operator=(const RingPair&) = delete;

    std::string name;
    std::unique_ptr<SharedPacketBufferIF> writer;
    std::unique_ptr<SharedPacketBufferIF> reader;
};

/// Shared memory as a ring has it, with all pages present.
class SharedBytes {
public:
    explicit SharedBytes(std::size_t size);
    ~SharedBytes();
    SharedBytes(const SharedBytes&) = delete;
    SharedBytes& operator=(const SharedBytes&) = delete;

    [[nodiscard]] unsigned char* Data() const noexcept { return data_; }

private:
    std::size_t size_;
    unsigned char* data_;
};

/// The limits.
void CopyPlain(unsigned char* to, const unsigned char* from, std::size_t size);
void CopyNonTemporal(unsigned char* to, const unsigned char* from, std::size_t size);

}  // namespace qel::bench
