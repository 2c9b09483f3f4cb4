#pragma once

#include <cstdint>

#include "NamedSemaphore.h"
#include "QevExport.h"

namespace qel {

/// Takes several units of one semaphore as one step, all or nothing, and gives them back together:
/// @code
/// SemaphoreMultiLockHelper all{semaphore, slots};
/// all.Lock();
/// @endcode
///
/// The helper does not know how many units it holds: Unlock always gives back `count`.
///
/// Thread use: none of its own. Two helpers that take several units of one semaphore at once can
/// each hold a part and wait for the rest forever: order them, or use TryLock.
struct QEV_EXPORT SemaphoreMultiLockHelper {
    NamedSemaphore& semaphore;  ///< not owned; outlives the helper
    std::uint64_t count;        ///< units; up to 2^32 - 1 make sense

    /// Waits for and takes all units. When that fails, those already taken are given back and the
    /// failure is thrown on. If even that fails, what is thrown is both a `std::exception_ptr`, the
    /// first failure, and a `std::nested_exception`, the second.
    void Lock();

    /// As Lock, without waiting.
    /// @return false, with nothing taken, if there are not enough units
    [[nodiscard]] bool TryLock();

    /// Gives all units back.
    void Unlock();
};

}  // namespace qel
