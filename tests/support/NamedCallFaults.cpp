// Wrappers of the calls on objects with names, and of the advice on memory.

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>

#include <cstdarg>

#include "CallWrapping.h"

using qel::test::Ask;
using qel::test::List;
using qel::test::Next;

namespace {

/// A call on a semaphore, whose address is not shown.
template <typename... Arguments>
int OnSemaphore(const char* operation, int (*next)(sem_t*, Arguments...), sem_t* semaphore,
                Arguments... arguments) {
    const auto verdict = Ask(operation, [] { return std::string(); });
    return verdict.make ? next(semaphore, arguments...) : static_cast<int>(verdict.result);
}

}  // namespace

QEV_WRAPPER int shm_open(const char* name, int flags, mode_t mode) {
    const auto verdict = Ask("shm_open", [&] { return List(name, flags, mode); });
    static auto* const next = Next<int(const char*, int, mode_t)>("shm_open");
    return verdict.make ? next(name, flags, mode) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int shm_unlink(const char* name) {
    const auto verdict = Ask("shm_unlink", [&] { return std::string(name); });
    static auto* const next = Next<int(const char*)>("shm_unlink");
    return verdict.make ? next(name) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int madvise(void* address, std::size_t length, int advice) noexcept {
    const auto verdict = Ask("madvise", [&] { return List(std::to_string(length), advice); });
    static auto* const next = Next<int(void*, std::size_t, int)>("madvise");
    return verdict.make ? next(address, length, advice) : static_cast<int>(verdict.result);
}

QEV_WRAPPER sem_t* sem_open(const char* name, int flags, ...) noexcept {
    std::va_list rest;
    va_start(rest, flags);
    const bool creates = (flags & O_CREAT) != 0;
    // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it is, two lines above
    const mode_t mode = creates ? va_arg(rest, mode_t) : 0;
    const unsigned value = creates ? va_arg(rest, unsigned) : 0;
    // NOLINTEND(clang-analyzer-valist.Uninitialized)
    va_end(rest);
    const auto verdict = Ask("sem_open", [&] { return List(name, flags, mode, value); });
    static auto* const next = Next<sem_t*(const char*, int, ...)>("sem_open");
    return verdict.make ? next(name, flags, mode, value) : SEM_FAILED;
}

QEV_WRAPPER int sem_close(sem_t* semaphore) noexcept {
    const auto verdict = Ask("sem_close", [] { return std::string(); });
    static auto* const next = Next<int(sem_t*)>("sem_close");
    if (!verdict.make) {
        qel::test::Owe([semaphore] { next(semaphore); });
        return static_cast<int>(verdict.result);
    }
    return next(semaphore);
}

QEV_WRAPPER int sem_post(sem_t* semaphore) noexcept {
    static auto* const next = Next<int(sem_t*)>("sem_post");
    return OnSemaphore("sem_post", next, semaphore);
}

QEV_WRAPPER int sem_wait(sem_t* semaphore) {
    static auto* const next = Next<int(sem_t*)>("sem_wait");
    return OnSemaphore("sem_wait", next, semaphore);
}

QEV_WRAPPER int sem_trywait(sem_t* semaphore) noexcept {
    static auto* const next = Next<int(sem_t*)>("sem_trywait");
    return OnSemaphore("sem_trywait", next, semaphore);
}

QEV_WRAPPER int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    static auto* const next = Next<int(sem_t*, const timespec*)>("sem_timedwait");
    return OnSemaphore("sem_timedwait", next, semaphore, deadline);
}

QEV_WRAPPER int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
    static auto* const next = Next<int(sem_t*, clockid_t, const timespec*)>("sem_clockwait");
    return OnSemaphore("sem_clockwait", next, semaphore, clock, deadline);
}

QEV_WRAPPER int sem_getvalue(sem_t* semaphore, int* value) noexcept {
    static auto* const next = Next<int(sem_t*, int*)>("sem_getvalue");
    return OnSemaphore("sem_getvalue", next, semaphore, value);
}
