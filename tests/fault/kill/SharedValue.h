#pragma once

#include <sys/mman.h>

#include <new>
#include <stdexcept>

namespace qel::test {

/// A value that forked processes share.
template <typename Value>
class SharedValue {
public:
    SharedValue()
        : start_(::mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                        -1, 0)) {
        if (start_ == MAP_FAILED) {
            throw std::runtime_error("no memory to share");
        }
        new (start_) Value();
    }
    ~SharedValue() { ::munmap(start_, sizeof(Value)); }
    SharedValue(const SharedValue&) = delete;
    SharedValue& operator=(const SharedValue&) = delete;

    Value& operator*() const { return *static_cast<Value*>(start_); }
    Value* operator->() const { return static_cast<Value*>(start_); }

private:
    void* start_;
};

}  // namespace qel::test
