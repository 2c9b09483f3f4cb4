#pragma once

#include <semaphore.h>

#include <chrono>
#include <memory>

#include "QevExport.h"

namespace qel {

/// The system calls that the library makes on shared memory, mappings, descriptors and named
/// semaphores. A test or a host program derives from it to put substitute kernel objects in their
/// place; `Sys` is the real one.
///
/// Each operation has the arguments, the result and the `errno` of the C function that it is named
/// after, except where its comment says otherwise. The order of the private virtual operations is
/// part of the binary interface.
///
/// Thread use: an implementation is called by any number of threads at once.
class QEV_EXPORT SysIF {
public:
    SysIF();
    virtual ~SysIF();
    SysIF(const SysIF&) = delete;
    SysIF& operator=(const SysIF&) = delete;

    int shm_open(const char* name, int flags, unsigned int mode) {
        return DoShmOpen(name, flags, mode);
    }
    int shm_unlink(const char* name) { return DoShmUnlink(name); }
    int ftruncate(int fd, long length) { return DoFtruncate(fd, length); }
    void* mmap(void* address, unsigned long length, int protection, int flags, int fd,
               long offset) {
        return DoMmap(address, length, protection, flags, fd, offset);
    }
    int munmap(void* address, unsigned long length) { return DoMunmap(address, length); }
    sem_t* sem_open(const char* name, int flags) { return DoSemOpen(name, flags); }
    /// The four-argument form of `sem_open`, which may create the semaphore.
    sem_t* sem_openc(const char* name, int flags, unsigned int mode, unsigned int value) {
        return DoSemOpenc(name, flags, mode, value);
    }
    int sem_close(sem_t* sem) { return DoSemClose(sem); }
    int sem_unlink(const char* name) { return DoSemUnlink(name); }
    int sem_post(sem_t* sem) { return DoSemPost(sem); }
    /// Waits at most `timeout` seconds from now, by the wall clock. Interruptions by signals
    /// neither end nor lengthen the wait. -1 with `ETIMEDOUT` when the time is up.
    int sem_timedwait(sem_t* sem, std::chrono::duration<double> timeout) {
        return DoSemTimedwait(sem, timeout);
    }
    int close(int fd) { return DoClose(fd); }
    int sem_wait(sem_t* sem) { return DoSemWait(sem); }
    int sem_trywait(sem_t* sem) { return DoSemTryWait(sem); }
    int sem_getvalue(sem_t* sem, int* value) { return DoSemGetValue(sem, value); }

private:
    virtual int DoShmOpen(const char* name, int flags, unsigned int mode) = 0;
    virtual int DoShmUnlink(const char* name) = 0;
    virtual int DoFtruncate(int fd, long length) = 0;
    virtual void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                         long offset) = 0;
    virtual int DoMunmap(void* address, unsigned long length) = 0;
    virtual sem_t* DoSemOpen(const char* name, int flags) = 0;
    virtual sem_t* DoSemOpenc(const char* name, int flags, unsigned int mode,
                              unsigned int value) = 0;
    virtual int DoSemClose(sem_t* sem) = 0;
    virtual int DoSemUnlink(const char* name) = 0;
    virtual int DoSemPost(sem_t* sem) = 0;
    virtual int DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) = 0;
    virtual int DoClose(int fd) = 0;
    virtual int DoSemWait(sem_t* sem) = 0;
    virtual int DoSemTryWait(sem_t* sem) = 0;
    virtual int DoSemGetValue(sem_t* sem, int* value) = 0;

    /// Empty today; state can be added here without a change of the class layout.
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
