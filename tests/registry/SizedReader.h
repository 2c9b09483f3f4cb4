#pragma once

#include "SharedMemoryBlockReaderIF.h"

namespace qel::test {

/// A reader without a block, told apart from others by its size.
class SizedReader : public SharedMemoryBlockReaderIF {
public:
    explicit SizedReader(std::uint64_t size) : size_(size) {}

private:
    void DoLock() override {}
    bool DoTryLock() override { return true; }
    void DoUnlock() override {}
    const unsigned char* DoGetData() override { return nullptr; }
    std::uint64_t DoSize() override { return size_; }

    std::uint64_t size_;
};

}  // namespace qel::test
