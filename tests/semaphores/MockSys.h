#pragma once

#include <gmock/gmock.h>

#include "SysIF.h"

namespace qel::test {

/// System calls of which each is foretold by the test.
class MockSys : public SysIF {
public:
    MOCK_METHOD(int, DoShmOpen, (const char*, int, unsigned int), (override));
    MOCK_METHOD(int, DoShmUnlink, (const char*), (override));
    MOCK_METHOD(int, DoFtruncate, (int, long), (override));
    MOCK_METHOD(void*, DoMmap, (void*, unsigned long, int, int, int, long), (override));
    MOCK_METHOD(int, DoMunmap, (void*, unsigned long), (override));
    MOCK_METHOD(sem_t*, DoSemOpen, (const char*, int), (override));
    MOCK_METHOD(sem_t*, DoSemOpenc, (const char*, int, unsigned int, unsigned int), (override));
    MOCK_METHOD(int, DoSemClose, (sem_t*), (override));
    MOCK_METHOD(int, DoSemUnlink, (const char*), (override));
    MOCK_METHOD(int, DoSemPost, (sem_t*), (override));
    MOCK_METHOD(int, DoSemTimedwait, (sem_t*, std::chrono::duration<double>), (override));
    MOCK_METHOD(int, DoClose, (int), (override));
    MOCK_METHOD(int, DoSemWait, (sem_t*), (override));
    MOCK_METHOD(int, DoSemTryWait, (sem_t*), (override));
    MOCK_METHOD(int, DoSemGetValue, (sem_t*, int*), (override));
};

}  // namespace qel::test
