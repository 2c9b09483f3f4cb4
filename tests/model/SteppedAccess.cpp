#include "SteppedAccess.h"

#include <algorithm>
#include <cstring>

namespace {

qel::test::AccessObserver* theObserver = nullptr;

using qel::test::Access;

template <typename Value, typename Operation>
Value Atomic(volatile Value* address, int order, Access access, const Operation& operation) {
    if (theObserver == nullptr) {
        return operation();
    }
    theObserver->BeforeAtomic(address, order == __ATOMIC_SEQ_CST);
    const Value before = __atomic_load_n(address, __ATOMIC_SEQ_CST);
    const Value result = operation();
    theObserver->AfterAtomic(address, access, before, __atomic_load_n(address, __ATOMIC_SEQ_CST));
    return result;
}

void Plain(const volatile void* address, std::size_t size, bool isWrite) {
    if (theObserver != nullptr) {
        theObserver->BeforePlain(address, size, isWrite);
    }
}

void* CopyInParts(void* to, const void* from, std::size_t size) {
    auto* const target = static_cast<unsigned char*>(to);
    const auto* const source = static_cast<const unsigned char*>(from);
    for (std::size_t done = 0; done < size; done += qel::test::kCopyPart) {
        const std::size_t part = std::min(qel::test::kCopyPart, size - done);
        Plain(source + done, part, false);
        Plain(target + done, part, true);
        for (std::size_t i = done; i < done + part; ++i) {
            target[i] = source[i];
        }
    }
    return to;
}

}  // namespace

namespace qel::test {

void ObserveAccesses(AccessObserver* observer) {
    theObserver = observer;
}

}  // namespace qel::test

// What the compilers call. The names are theirs.
// NOLINTBEGIN(bugprone-macro-parentheses,bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

void* __real_memmove(void* to, const void* from, std::size_t size);
void* __wrap_memcpy(void* to, const void* from, std::size_t size);
void* __wrap_memmove(void* to, const void* from, std::size_t size);

void* __wrap_memcpy(void* to, const void* from, std::size_t size) {
    return __wrap_memmove(to, from, size);
}
void* __wrap_memmove(void* to, const void* from, std::size_t size) {
    // No copy of the code under observation overlaps.
    return theObserver == nullptr ? __real_memmove(to, from, size) : CopyInParts(to, from, size);
}

void __tsan_init();
void __tsan_init() {}
void __tsan_func_entry(void* /*caller*/);
void __tsan_func_entry(void* /*caller*/) {}
void __tsan_func_exit();
void __tsan_func_exit() {}
void __tsan_vptr_read(void** /*pointer*/);
void __tsan_vptr_read(void** /*pointer*/) {}
void __tsan_vptr_update(void** /*pointer*/, void* /*value*/);
void __tsan_vptr_update(void** /*pointer*/, void* /*value*/) {}

#define QEV_PLAIN(size)                                \
    void __tsan_read##size(void* address);             \
    void __tsan_read##size(void* address) {            \
        Plain(address, size, false);                   \
    }                                                  \
    void __tsan_write##size(void* address);            \
    void __tsan_write##size(void* address) {           \
        Plain(address, size, true);                    \
    }                                                  \
    void __tsan_unaligned_read##size(void* address);   \
    void __tsan_unaligned_read##size(void* address) {  \
        Plain(address, size, false);                   \
    }                                                  \
    void __tsan_unaligned_write##size(void* address);  \
    void __tsan_unaligned_write##size(void* address) { \
        Plain(address, size, true);                    \
    }
QEV_PLAIN(1)
QEV_PLAIN(2)
QEV_PLAIN(4)
QEV_PLAIN(8)
QEV_PLAIN(16)
#undef QEV_PLAIN

void __tsan_read_range(void* address, unsigned long size);
void __tsan_read_range(void* address, unsigned long size) {
    Plain(address, size, false);
}
void __tsan_write_range(void* address, unsigned long size);
void __tsan_write_range(void* address, unsigned long size) {
    Plain(address, size, true);
}

#define QEV_ATOMIC(bits, Value)                                                               \
    Value __tsan_atomic##bits##_load(const volatile Value* address, int order);               \
    Value __tsan_atomic##bits##_load(const volatile Value* address, int order) {              \
        return Atomic(const_cast<volatile Value*>(address), order, Access::Load,              \
                      [&] { return __atomic_load_n(address, __ATOMIC_SEQ_CST); });            \
    }                                                                                         \
    void __tsan_atomic##bits##_store(volatile Value* address, Value value, int order);        \
    void __tsan_atomic##bits##_store(volatile Value* address, Value value, int order) {       \
        Atomic(address, order, Access::Store, [&] {                                           \
            __atomic_store_n(address, value, __ATOMIC_SEQ_CST);                               \
            return value;                                                                     \
        });                                                                                   \
    }                                                                                         \
    Value __tsan_atomic##bits##_exchange(volatile Value* address, Value value, int order);    \
    Value __tsan_atomic##bits##_exchange(volatile Value* address, Value value, int order) {   \
        return Atomic(address, order, Access::Exchange,                                       \
                      [&] { return __atomic_exchange_n(address, value, __ATOMIC_SEQ_CST); }); \
    }                                                                                         \
    Value __tsan_atomic##bits##_fetch_add(volatile Value* address, Value value, int order);   \
    Value __tsan_atomic##bits##_fetch_add(volatile Value* address, Value value, int order) {  \
        return Atomic(address, order, Access::Add,                                            \
                      [&] { return __atomic_fetch_add(address, value, __ATOMIC_SEQ_CST); });  \
    }                                                                                         \
    Value __tsan_atomic##bits##_fetch_sub(volatile Value* address, Value value, int order);   \
    Value __tsan_atomic##bits##_fetch_sub(volatile Value* address, Value value, int order) {  \
        return Atomic(address, order, Access::Subtract,                                       \
                      [&] { return __atomic_fetch_sub(address, value, __ATOMIC_SEQ_CST); });  \
    }
QEV_ATOMIC(8, std::uint8_t)
QEV_ATOMIC(32, std::uint32_t)
QEV_ATOMIC(64, std::uint64_t)
#undef QEV_ATOMIC

}  // extern "C"
// NOLINTEND(bugprone-macro-parentheses,bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
