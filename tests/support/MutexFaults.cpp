#include "MutexFaults.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QEV_LOCKS_ARE_WATCHED
#endif
#elif defined(__SANITIZE_THREAD__)
#define QEV_LOCKS_ARE_WATCHED
#endif

#ifdef QEV_LOCKS_ARE_WATCHED

namespace qel::test {
bool MutexFaultsWork() {
    return false;
}
void RefuseMutexCall(const std::string& /*operation*/, int /*nth*/, int /*error*/) {}
void CountMutexCalls(const std::string& /*operation*/) {}
int MutexCalls(const std::string& /*operation*/) {
    return 0;
}
}  // namespace qel::test

#else

#include <dlfcn.h>
#include <pthread.h>

#include <cstring>

namespace qel::test {
namespace {

// Plain data: the wrappers run before and after the life of every C++ object.
struct Plan {
    const char* operation;
    int calls;
    int refused;  ///< the call that is refused, 0 for none
    int error;
};
thread_local Plan plans[] = {{"pthread_mutex_lock", 0, 0, 0},
                             {"pthread_rwlock_rdlock", 0, 0, 0},
                             {"pthread_rwlock_wrlock", 0, 0, 0},
                             {"pthread_rwlock_unlock", 0, 0, 0}};
enum : int { kMutex, kRead, kWrite, kUnlock };

Plan& PlanOf(const std::string& operation) {
    for (Plan& plan : plans) {
        if (operation == plan.operation) {
            return plan;
        }
    }
    return plans[kMutex];
}

template <typename Lock>
int Wrapped(int which, Lock* lock) {
    Plan& plan = plans[which];
    if (++plan.calls == plan.refused) {
        return plan.error;
    }
    using Function = int(Lock*);
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, plan.operation))(lock);
}

}  // namespace

bool MutexFaultsWork() {
    return true;
}

void RefuseMutexCall(const std::string& operation, int nth, int error) {
    Plan& plan = PlanOf(operation);
    plan.calls = 0;
    plan.refused = nth;
    plan.error = error;
}

void CountMutexCalls(const std::string& operation) {
    RefuseMutexCall(operation, 0, 0);
}

int MutexCalls(const std::string& operation) {
    return PlanOf(operation).calls;
}

}  // namespace qel::test

#define QEV_WRAPPER extern "C" __attribute__((visibility("default")))

QEV_WRAPPER int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    return qel::test::Wrapped(qel::test::kMutex, mutex);
}

QEV_WRAPPER int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    return qel::test::Wrapped(qel::test::kRead, lock);
}

QEV_WRAPPER int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    return qel::test::Wrapped(qel::test::kWrite, lock);
}

QEV_WRAPPER int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    return qel::test::Wrapped(qel::test::kUnlock, lock);
}

#endif
