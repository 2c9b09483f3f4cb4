#include "FaultySys.h"

#include <cerrno>

#include "CallWrapping.h"

namespace qel::test {
namespace {

std::string NoArguments() {
    return {};
}

/// Makes the call unless it is refused.
template <typename Arguments, typename Call>
int Made(const char* operation, const Arguments& arguments, const Call& call) {
    const auto verdict = AskAsSubstitute(operation, arguments);
    return verdict.make ? call() : static_cast<int>(verdict.result);
}

}  // namespace

int FaultySys::DoShmOpen(const char* name, int flags, unsigned int mode) {
    return Made(
        "shm_open", [&] { return List(name, flags, mode); },
        [&] { return real_.shm_open(name, flags, mode); });
}

int FaultySys::DoShmUnlink(const char* name) {
    return Made(
        "shm_unlink", [&] { return std::string(name); }, [&] { return real_.shm_unlink(name); });
}

int FaultySys::DoFtruncate(int fd, long length) {
    return Made(
        "ftruncate", [&] { return List(PathOf(fd), length); },
        [&] { return real_.ftruncate(fd, length); });
}

void* FaultySys::DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                        long offset) {
    const auto verdict = AskAsSubstitute("mmap", [&] {
        return List(std::to_string(length), protection, flags) + ", " + List(PathOf(fd), offset);
    });
    if (!verdict.make) {
        return reinterpret_cast<void*>(verdict.result);  // NOLINT(performance-no-int-to-ptr)
    }
    return real_.mmap(address, length, protection, flags, fd, offset);
}

int FaultySys::DoMunmap(void* address, unsigned long length) {
    const auto verdict = AskAsSubstitute("munmap", [&] { return std::to_string(length); });
    if (!verdict.make) {
        Owe([address, length] { Sys().munmap(address, length); });
        return static_cast<int>(verdict.result);
    }
    return real_.munmap(address, length);
}

sem_t* FaultySys::DoSemOpen(const char* name, int flags) {
    const auto verdict = AskAsSubstitute("sem_open", [&] { return List(name, flags, 0, 0); });
    return verdict.make ? real_.sem_open(name, flags) : SEM_FAILED;
}

sem_t* FaultySys::DoSemOpenc(const char* name, int flags, unsigned int mode, unsigned int value) {
    const auto verdict =
        AskAsSubstitute("sem_open", [&] { return List(name, flags, mode, value); });
    return verdict.make ? real_.sem_openc(name, flags, mode, value) : SEM_FAILED;
}

int FaultySys::DoSemClose(sem_t* sem) {
    const auto verdict = AskAsSubstitute("sem_close", NoArguments);
    if (!verdict.make) {
        Owe([sem] { Sys().sem_close(sem); });
        return static_cast<int>(verdict.result);
    }
    return real_.sem_close(sem);
}

int FaultySys::DoSemUnlink(const char* name) {
    return Made(
        "sem_unlink", [&] { return std::string(name); }, [&] { return real_.sem_unlink(name); });
}

int FaultySys::DoSemPost(sem_t* sem) {
    return Made("sem_post", NoArguments, [&] { return real_.sem_post(sem); });
}

int FaultySys::DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) {
    return Made("sem_timedwait", NoArguments, [&] { return real_.sem_timedwait(sem, timeout); });
}

// Whatever close reports, the descriptor is gone.
int FaultySys::DoClose(int fd) {
    const auto verdict = AskAsSubstitute("close", [&] { return PathOf(fd); });
    const int result = real_.close(fd);
    if (verdict.make) {
        return result;
    }
    errno = verdict.error;
    return static_cast<int>(verdict.result);
}

int FaultySys::DoSemWait(sem_t* sem) {
    return Made("sem_wait", NoArguments, [&] { return real_.sem_wait(sem); });
}

int FaultySys::DoSemTryWait(sem_t* sem) {
    return Made("sem_trywait", NoArguments, [&] { return real_.sem_trywait(sem); });
}

int FaultySys::DoSemGetValue(sem_t* sem, int* value) {
    return Made("sem_getvalue", NoArguments, [&] { return real_.sem_getvalue(sem, value); });
}

}  // namespace qel::test
