#pragma once

#include <string>

namespace qel::test {

/// True where the locks in memory can be refused: not where a race detector watches them itself.
[[nodiscard]] bool MutexFaultsWork();

/// Lets the `nth` call from now of `operation` that this thread makes return `error`, 1 being the
/// next, and starts counting. A program that is linked with MutexFaults.cpp has these calls
/// wrapped:
///
///     pthread_mutex_lock pthread_rwlock_rdlock pthread_rwlock_wrlock pthread_rwlock_unlock
void RefuseMutexCall(const std::string& operation, int nth, int error);

/// Starts counting the calls of `operation` that this thread makes.
void CountMutexCalls(const std::string& operation);

/// Calls of `operation` that this thread has made since it was last named here.
[[nodiscard]] int MutexCalls(const std::string& operation);

}  // namespace qel::test
