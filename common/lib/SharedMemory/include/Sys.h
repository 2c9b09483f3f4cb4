#pragma once

#include "SysIF.h"

namespace qel {

/// The real system calls: each operation is one call of the C library, its result and `errno`
/// handed back unchanged. Nothing is retried, logged or thrown, but `sem_timedwait` goes on after
/// an interruption.
class QEV_EXPORT Sys : public SysIF {
private:
    int DoShmOpen(const char* name, int flags, unsigned int mode) override;
    int DoShmUnlink(const char* name) override;
    int DoFtruncate(int fd, long length) override;
    void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                 long offset) override;
    int DoMunmap(void* address, unsigned long length) override;
    sem_t* DoSemOpen(const char* name, int flags) override;
    sem_t* DoSemOpenc(const char* name, int flags, unsigned int mode, unsigned int value) override;
    int DoSemClose(sem_t* sem) override;
    int DoSemUnlink(const char* name) override;
    int DoSemPost(sem_t* sem) override;
    int DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) override;
    int DoClose(int fd) override;
    int DoSemWait(sem_t* sem) override;
    int DoSemTryWait(sem_t* sem) override;
    int DoSemGetValue(sem_t* sem, int* value) override;
};

}  // namespace qel
