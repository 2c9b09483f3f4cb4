// What another thread does while an operation of a block is under way.

#include <sched.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <future>
#include <thread>

#include "BuildKind.h"
#include "FaultyBlockFixture.h"
#include "Worker.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;

/// True while `thread` waits for a lock in memory that is a part of `object`.
template <typename Object>
bool WaitsForLockOf(const Object& object, pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    std::string number;
    std::uintptr_t address = 0;
    if (!(file >> number >> std::hex >> address) || number != std::to_string(SYS_futex)) {
        return false;
    }
    const auto start = reinterpret_cast<std::uintptr_t>(&object);
    return address >= start && address < start + sizeof(object);
}

class BlockInterleaving : public FaultyBlockTest {
protected:
    /// Expects both kinds of lock to be free, and to keep the other thread out.
    void ExpectSound() {
        ASSERT_TRUE(block_->TryLockForWrite());
        EXPECT_FALSE(other_.Do([this] { return block_->TryLockForRead(); }));
        block_->UnlockForWrite();
        ASSERT_TRUE(other_.Do([this] { return block_->TryLockForRead(); }));
        EXPECT_FALSE(block_->TryLockForWrite());
        other_.Do([this] { block_->UnlockForRead(); });
        other_.Do([this] { Put(*block_, "sound"); });
        EXPECT_EQ(DataOf(*block_).substr(0, 5), "sound");
        EXPECT_EQ(Lock(), Held::No);
    }

    std::unique_ptr<SharedMemoryBlock> block_ = Creator(1000);
    Worker other_;
};

class AReleaseTooMany : public BlockInterleaving, public ::testing::WithParamInterface<bool> {};

// The second release passes the owner check: the other thread has the lock, but is not yet known as
// the writer.
TEST_P(AReleaseTooMany, WhileAnotherThreadIsJustTakingTheLockLeavesTheLockSound) {
    block_->LockForWrite();
    block_->UnlockForWrite();
    std::promise<void> stopped;
    std::promise<void> mayGoOn;
    faults_.BeforeNth("mprotect", 1, [&] {
        stopped.set_value();
        mayGoOn.get_future().wait();
    });
    auto locked = other_.Start([this] {
        if (GetParam()) {
            return block_->TryLockForWrite();
        }
        block_->LockForWrite();
        return true;
    });
    stopped.get_future().wait();
    faults_.ForgetCalls();

    block_->UnlockForWrite();

    EXPECT_THAT(faults_.Calls(),
                ElementsAre("mprotect(1008, 0)", "mprotect(1008, 0)", "flock(LOCK, 8)"));
    EXPECT_FALSE(block_->TryLockForRead()) << "the other thread has lost the lock in memory";
    EXPECT_FALSE(block_->TryLockForWrite());
    EXPECT_EQ(faults_.Calls("flock").size(), 1U) << "the memory was free";
    mayGoOn.set_value();
    EXPECT_TRUE(locked.get());
    EXPECT_EQ(Thrown([this] { (void)block_->GetDataForWrite(); }),
              "GetDataForWrite called without proper locking");
    other_.Do([this] { block_->UnlockForWrite(); });

    ExpectSound();
}

INSTANTIATE_TEST_SUITE_P(By, AReleaseTooMany, ::testing::Bool(),
                         [](const auto& trying) { return trying.param ? "Trying" : "Waiting"; });

TEST_F(BlockInterleaving, TheDataCanBeAskedForWhileTheFileIsUnlocked) {
    block_->LockForRead();
    std::string answer = "none: the flock of the release was not seen";
    faults_.BeforeNth("flock", 1, [&] {
        auto asked =
            other_.Start([this] { return Thrown([this] { (void)block_->GetDataForRead(); }); });
        while (!IsReady(asked) && !WaitsForLockOf(*block_, other_.Thread())) {
            std::this_thread::yield();
        }
        answer = IsReady(asked) ? asked.get() : "none: it waits";
    });

    block_->UnlockForRead();

    EXPECT_EQ(answer, "GetDataForRead called without proper locking");
    ExpectSound();
}

/// Where two threads wait for each other, to go on at the same moment.
class Meeting {
public:
    void Arrive() {
        const int round = arrivals_++ / 2;
        for (int spins = 0; arrivals_.load() < 2 * (round + 1); ++spins) {
            if (spins > 10000) {
                std::this_thread::yield();  // the other one is not running
            }
        }
    }

private:
    std::atomic<int> arrivals_{0};
};

/// Keeps this thread on the processor of that number among those that it may use: two threads that
/// share one never do a thing at the same moment.
void StayOn(int number) {
    cpu_set_t allowed;
    ::sched_getaffinity(0, sizeof(allowed), &allowed);
    number %= CPU_COUNT(&allowed);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &allowed) && number-- == 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            ::sched_setaffinity(0, sizeof(one), &one);
            return;
        }
    }
}

void Delay(int steps) {
    for (std::atomic<int> left{steps}; left > 0; --left) {
    }
}

// Calls are recorded only where they are looked at, so that the threads are not kept apart.
using TheProtection = BlockTest;

TEST_F(TheProtection, ChangedByTwoThreadsLosesNeithersBit) {
    constexpr int kRounds = kSlowBuild ? 1000 : 4000;
    const auto block = Creator(1000);
    Meeting begin;
    Meeting end;
    const auto read = [](int round) { return round % 2 == 1; };
    const auto write = [](int round) { return round / 2 % 2 == 1; };
    std::thread writer([&] {
        StayOn(0);
        for (int round = 0; round < kRounds; ++round) {
            begin.Arrive();
            Delay(64);
            block->SetWriteAllowed(write(round));
            end.Arrive();
        }
    });
    int lost = 0;
    std::thread reader([&] {
        StayOn(1);
        for (int round = 0; round < kRounds; ++round) {
            begin.Arrive();
            Delay(round / 8 % 128);  // shifts the two threads against each other by a little
            block->SetReadAllowed(read(round));
            end.Arrive();
            // The writer waits for the next round. Asking for one bit as it should be shows the
            // other as it is: that of the writer and that of the reader by turns.
            CallFaults faults;
            round / 4 % 2 == 0 ? block->SetReadAllowed(read(round))
                               : block->SetWriteAllowed(write(round));
            const int protection = (read(round) ? 1 : 0) + (write(round) ? 2 : 0);
            const std::string expected = "mprotect(1008, " + std::to_string(protection) + ")";
            lost += faults.Calls().at(0) == expected ? 0 : 1;
        }
    });
    reader.join();
    writer.join();

    EXPECT_EQ(lost, 0) << "of " << kRounds << " rounds";
}

}  // namespace
}  // namespace qel::test
