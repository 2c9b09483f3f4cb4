#pragma once

#include "SysIF.h"

namespace qel::test {

/// A kernel that has one shared object, which is mapped already.
class OneSegment : public SysIF {
public:
    explicit OneSegment(void* memory) : memory_(memory) {}

private:
    int DoShmOpen(const char*, int, unsigned int) override { return 3; }
    int DoShmUnlink(const char*) override { return 0; }
    int DoFtruncate(int, long) override { return 0; }
    void* DoMmap(void*, unsigned long, int, int, int, long) override { return memory_; }
    int DoMunmap(void*, unsigned long) override { return 0; }
    int DoClose(int) override { return 0; }
    sem_t* DoSemOpen(const char*, int) override { return SEM_FAILED; }
    sem_t* DoSemOpenc(const char*, int, unsigned int, unsigned int) override { return SEM_FAILED; }
    int DoSemClose(sem_t*) override { return -1; }
    int DoSemUnlink(const char*) override { return -1; }
    int DoSemPost(sem_t*) override { return -1; }
    int DoSemTimedwait(sem_t*, std::chrono::duration<double>) override { return -1; }
    int DoSemWait(sem_t*) override { return -1; }
    int DoSemTryWait(sem_t*) override { return -1; }
    int DoSemGetValue(sem_t*, int*) override { return -1; }

    void* memory_;
};

}  // namespace qel::test
