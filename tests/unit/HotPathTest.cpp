// What writing, reading and releasing do not do: allocate, lock, log, or call the system.

#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "CapturedLog.h"
#include "FakeKernel.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"
#include "SysFactory.h"
#include "UniqueRingName.h"

#if defined(__SANITIZE_ADDRESS__)
#define QEV_RUNTIME_MAKES_CALLS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEV_RUNTIME_MAKES_CALLS
#endif
#endif

namespace {

thread_local int allocations = 0;
thread_local int blocksInUse = 0;
thread_local int locks = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    ++blocksInUse;
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    blocksInUse -= memory == nullptr ? 0 : 1;
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

namespace qel::test {

// The linker leads references to X to __wrap_X, and those to __real_X to X.
int RealMutexLock(pthread_mutex_t* mutex) __asm__("__real_pthread_mutex_lock");
int RealReadLock(pthread_rwlock_t* lock) __asm__("__real_pthread_rwlock_rdlock");
int RealWriteLock(pthread_rwlock_t* lock) __asm__("__real_pthread_rwlock_wrlock");

int WrappedMutexLock(pthread_mutex_t* mutex) __asm__("__wrap_pthread_mutex_lock");
int WrappedMutexLock(pthread_mutex_t* mutex) {
    ++locks;
    return RealMutexLock(mutex);
}
int WrappedReadLock(pthread_rwlock_t* lock) __asm__("__wrap_pthread_rwlock_rdlock");
int WrappedReadLock(pthread_rwlock_t* lock) {
    ++locks;
    return RealReadLock(lock);
}
int WrappedWriteLock(pthread_rwlock_t* lock) __asm__("__wrap_pthread_rwlock_wrlock");
int WrappedWriteLock(pthread_rwlock_t* lock) {
    ++locks;
    return RealWriteLock(lock);
}

namespace {

template <typename Call>
int AllocationsIn(const Call& call) {
    const int before = allocations;
    call();
    return allocations - before;
}

template <typename Call>
int LocksIn(const Call& call) {
    const int before = locks;
    call();
    return locks - before;
}

/// A producer and a sink on one ring, and everything that they do in normal operation.
class HotPath : public testing::Test {
protected:
    std::unique_ptr<SharedBuffer> Open(std::uint8_t node, bool sink) {
        return std::make_unique<SharedBuffer>(
            sys_, SharedBufferIF::BufferInfo{name_.Name(), 2048, node, sink, 9});
    }

    Packet Payload() {
        Packet packet;
        packet.data = bytes_;
        return packet;
    }

    void ReadAndReleaseAll() {
        for (auto read = sink_.ReadNextPacket(); read.status == SMStatusCode::SUCCESS;
             read = sink_.ReadNextPacket()) {
            (void)sink_.ReleasePacket(read.packet);
        }
    }

    void WriteAll() {
        (void)source_.WritePacket(Payload());
        (void)source_.WriteCriticalPacket(Payload());
        (void)source_.WriteMultiDataPacket({}, spans_);
    }

    /// Goes round the ring several times, with wraps, fillers, refusals and clamps.
    void DoEverything() {
        for (int round = 0; round < 20; ++round) {
            WriteAll();
            WriteAll();
            (void)source_.GetCurrentCapacity();
            (void)sink_.ReadData(0, 4);
            (void)sink_.ReadData(99999, 4);
            ReadAndReleaseAll();
            (void)sink_.ReleasePackets({});
        }
    }

    UniqueRingName name_;
    std::shared_ptr<SysIF> sys_ = SysFactory::Create("");
    std::vector<unsigned char> bytes_ = std::vector<unsigned char>(300);
    std::vector<ByteSpan> spans_{bytes_, bytes_};
    SharedPacketBuffer source_{Open(0, false)};
    SharedPacketBuffer sink_{Open(1, true)};
};

TEST_F(HotPath, OrdinaryWriteAllocatesNothing) {
    EXPECT_EQ(0, AllocationsIn([&] { (void)source_.WritePacket(Payload()); }));
    EXPECT_EQ(0, AllocationsIn([&] { (void)source_.WriteCriticalPacket(Payload()); }));
}

TEST_F(HotPath, GatheredWriteAllocatesNothing) {
    EXPECT_EQ(0, AllocationsIn([&] { (void)source_.WriteMultiDataPacket({}, spans_); }));
}

TEST_F(HotPath, ReadingAndReleasingAllocateNothing) {
    WriteAll();
    EXPECT_EQ(0, AllocationsIn([&] { ReadAndReleaseAll(); }));
    EXPECT_EQ(0, AllocationsIn([&] { (void)sink_.ReadNextPacket(); }));  // none there
    EXPECT_EQ(0, AllocationsIn([&] { (void)sink_.ReadData(0, 100); }));
}

TEST_F(HotPath, FillRecordAllocatesNothing) {
    const auto ring = Open(0, false);
    EXPECT_EQ(0, AllocationsIn([&] { (void)ring->WriteHeaderSkipPayload(bytes_, 0); }));
}

TEST_F(HotPath, BufferGivesBackAllMemoryThatItTook) {
    const int before = blocksInUse;
    { const SharedPacketBuffer buffer(Open(2, true)); }
    EXPECT_EQ(before, blocksInUse);
}

TEST_F(HotPath, NothingTakesALock) {
    std::mutex mutex;
    std::shared_mutex sharedMutex;
    ASSERT_EQ(3, LocksIn([&] {
                  mutex.lock();
                  mutex.unlock();
                  sharedMutex.lock();
                  sharedMutex.unlock();
                  sharedMutex.lock_shared();
                  sharedMutex.unlock_shared();
              }))
        << "the count itself must work";
    EXPECT_EQ(0, LocksIn([&] { DoEverything(); }));
}

TEST_F(HotPath, NothingIsLogged) {
    const CapturedLog log(LogLevel::Debug);
    DoEverything();
    EXPECT_TRUE(log.Records().empty());
}

#ifdef QEV_RUNTIME_MAKES_CALLS

TEST_F(HotPath, NothingCallsTheSystem) {
    GTEST_SKIP() << "the sanitizer's runtime makes system calls of its own";
}

#else

/// Runs `call` in a child that the kernel kills at any system call but read, write and exit; true
/// if it came through.
bool RunsWithoutSystemCalls(const std::function<void()>& call) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::free(std::malloc(1U << 16U));  // so that the heap need not grow
        if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) {
            ::_exit(2);
        }
        call();
        ::syscall(SYS_exit, 0);  // _exit would be the forbidden exit_group
    }
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL));
    EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << "no strict mode here";
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(HotPath, NothingCallsTheSystem) {
    EXPECT_FALSE(RunsWithoutSystemCalls([] { (void)::getppid(); })) << "the trap itself must work";
    EXPECT_TRUE(RunsWithoutSystemCalls([this] { DoEverything(); }));
}

#endif

TEST_F(HotPath, EverythingIncludesWrapsRefusalsAndAFullRing) {
    std::vector<SMStatusCode> seen;
    int fillers = 0;
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 4; ++i) {
            seen.push_back(source_.WritePacket(Payload()));
            seen.push_back(source_.WriteMultiDataPacket({}, spans_));
        }
        for (auto read = sink_.ReadNextPacket(); read.status == SMStatusCode::SUCCESS;
             read = sink_.ReadNextPacket()) {
            fillers += read.packet.header.ignoreData ? 1 : 0;
            (void)sink_.ReleasePacket(read.packet);
        }
    }
    EXPECT_GT(fillers, 2);
    EXPECT_NE(seen.end(), std::find(seen.begin(), seen.end(), SMStatusCode::NOT_ENOUGH_SPACE));
}

TEST(SystemCallFactoryAllocation, SysAndItsSharedOwnershipAreAllocatedTogether) {
    std::shared_ptr<SysIF> sys;
    // The object with its count, and the empty private object of the interface.
    EXPECT_EQ(2, AllocationsIn([&] { sys = SysFactory::Create(""); }));
}

}  // namespace
}  // namespace qel::test
