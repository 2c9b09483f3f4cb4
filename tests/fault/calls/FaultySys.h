#pragma once

#include "Sys.h"
#include "SysIF.h"

namespace qel::test {

/// The real system calls, each of which CallFaults records and can refuse here, ahead of the C
/// library. Records are the same as those of direct calls.
class FaultySys : public SysIF {
protected:
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

private:
    Sys real_;
};

}  // namespace qel::test
