#include "SemaphoreMultiLockHelper.h"

#include <exception>

#include "StandardOutput.h"

namespace qel {
namespace {

/// @param units  read anew after each, as a helper's own count is
void Give(const NamedSemaphore& semaphore, const std::uint64_t& units) {
    for (std::uint32_t i = 0; i < units; ++i) {
        semaphore.Post();
    }
}

/// For a handler: gives back what was taken before the failure at hand and throws that on.
[[noreturn]] void GiveBackAndRethrow(const NamedSemaphore& semaphore, std::uint32_t taken) {
    const std::exception_ptr failure = std::current_exception();
    try {
        Give(semaphore, taken);
    } catch (...) {
        WriteOut("SemaphoreMultiLockHelper failed to unroll after exception in lock\n");
        std::throw_with_nested(failure);
    }
    std::rethrow_exception(failure);
}

}  // namespace

void SemaphoreMultiLockHelper::Lock() {
    std::uint32_t taken = 0;
    try {
        for (; taken < count; ++taken) {
            semaphore.Wait();
        }
    } catch (...) {
        GiveBackAndRethrow(semaphore, taken);
    }
}

bool SemaphoreMultiLockHelper::TryLock() {
    std::uint32_t taken = 0;
    bool refused = false;
    try {
        while (!refused && taken < count) {
            refused = !semaphore.TryWait();
            taken += refused ? 0 : 1;
        }
    } catch (...) {
        GiveBackAndRethrow(semaphore, taken);
    }
    if (refused) {
        Give(semaphore, taken);
    }
    return !refused;
}

void SemaphoreMultiLockHelper::Unlock() {
    Give(semaphore, count);
}

}  // namespace qel
