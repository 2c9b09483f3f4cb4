#include "Sys.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Deadline.h"
#include "SysFactory.h"

namespace qel {

std::shared_ptr<SysIF> SysFactory::Create(std::string_view /*name*/) {
    return std::make_shared<Sys>();
}

int Sys::DoShmOpen(const char* name, int flags, unsigned int mode) {
    return ::shm_open(name, flags, mode);
}

int Sys::DoShmUnlink(const char* name) {
    return ::shm_unlink(name);
}

int Sys::DoFtruncate(int fd, long length) {
    return ::ftruncate(fd, length);
}

void* Sys::DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                  long offset) {
    return ::mmap(address, length, protection, flags, fd, offset);
}

int Sys::DoMunmap(void* address, unsigned long length) {
    return ::munmap(address, length);
}

sem_t* Sys::DoSemOpen(const char* name, int flags) {
    return ::sem_open(name, flags);
}

sem_t* Sys::DoSemOpenc(const char* name, int flags, unsigned int mode, unsigned int value) {
    return ::sem_open(name, flags, mode, value);
}

int Sys::DoSemClose(sem_t* sem) {
    return ::sem_close(sem);
}

int Sys::DoSemUnlink(const char* name) {
    return ::sem_unlink(name);
}

int Sys::DoSemPost(sem_t* sem) {
    return ::sem_post(sem);
}

int Sys::DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    // One deadline for all attempts, so that interruptions do not lengthen the wait.
    const timespec deadline = DeadlineAfter(timeout, now);
    int result = 0;
    do {
        result = ::sem_timedwait(sem, &deadline);
    } while (result == -1 && errno == EINTR);
    return result;
}

int Sys::DoClose(int fd) {
    return ::close(fd);
}

int Sys::DoSemWait(sem_t* sem) {
    return ::sem_wait(sem);
}

int Sys::DoSemTryWait(sem_t* sem) {
    return ::sem_trywait(sem);
}

int Sys::DoSemGetValue(sem_t* sem, int* value) {
    return ::sem_getvalue(sem, value);
}

}  // namespace qel
