#pragma once

#include <cstdint>
#include <string>

#include "ControlBlock.h"
#include "Input.h"

namespace qel::fuzz {

/// Node 0 of a ring that exists, without the library: it hands on what it likes.
class RawWriter {
public:
    /// @throws std::runtime_error if there is no such ring
    RawWriter(const std::string& ring, std::uint64_t size);
    ~RawWriter();
    RawWriter(const RawWriter&) = delete;
    RawWriter& operator=(const RawWriter&) = delete;

    /// Copies bytes to the write index, round the ring, and hands them on. Nothing is done if so
    /// many are not free.
    void Put(const Bytes& bytes);

    /// Writes one of the counters or indices.
    void Forge(std::size_t field, std::uint64_t value);

private:
    ControlBlock* control_;
    std::uint64_t size_;
};

}  // namespace qel::fuzz
