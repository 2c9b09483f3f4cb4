#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "SystemSemaphore.h"
#include "Thrown.h"
#include "UniqueSemaphoreName.h"
#include "Worker.h"

namespace qel::test {
namespace {

using IfMissing = SystemSemaphore::IfMissing;
using std::chrono::microseconds;

constexpr microseconds kLong = std::chrono::hours(1);

class SystemSemaphoreTest : public testing::Test {
protected:
    UniqueSemaphoreName unique_;
    std::string name_ = unique_.Name().substr(1);
};

TEST_F(SystemSemaphoreTest, IsMadeWithoutUnitsAndKeepsThemBetweenHandles) {
    {
        const SystemSemaphore made(name_, IfMissing::Create);
        EXPECT_EQ(made.Value(), 0);
        made.Post();
        made.Post();
    }
    const SystemSemaphore found(name_, IfMissing::Refuse);
    EXPECT_EQ(found.Value(), 2);
}

TEST_F(SystemSemaphoreTest, MissingOneIsRefusedIfSoAsked) {
    EXPECT_EQ(Thrown([&] { const SystemSemaphore semaphore(name_, IfMissing::Refuse); }),
              "cannot open semaphore /" + name_ + ": 2(No such file or directory)");
}

TEST_F(SystemSemaphoreTest, FileTooShortForOneIsRefused) {
    std::ofstream(SystemSemaphore::PathOf(name_)) << "short";
    EXPECT_EQ(Thrown([&] { const SystemSemaphore semaphore(name_, IfMissing::Create); }),
              "/dev/shm/sem." + name_ + " is damaged: too short for a semaphore");
}

TEST_F(SystemSemaphoreTest, PostBeyondTheHighestValueIsAnError) {
    sem_t* const full = sem_open(unique_.Name().c_str(), O_CREAT, 0600, SEM_VALUE_MAX);
    ASSERT_NE(full, SEM_FAILED);
    ASSERT_EQ(sem_close(full), 0);
    const SystemSemaphore semaphore(name_, IfMissing::Refuse);
    EXPECT_EQ(Thrown([&] { semaphore.Post(); }),
              "cannot post to semaphore /" + name_ + ": 75(Value too large for defined data type)");
    semaphore.Signal();
    EXPECT_EQ(semaphore.Value(), SEM_VALUE_MAX);
}

TEST_F(SystemSemaphoreTest, SignalsWithoutATakerLeaveOneUnit) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    for (int signal = 0; signal < 3; ++signal) {
        semaphore.Signal();
        EXPECT_EQ(semaphore.Value(), 1);
    }
    EXPECT_TRUE(semaphore.TryTake());
    semaphore.Signal();
    EXPECT_EQ(semaphore.Value(), 1);
}

TEST_F(SystemSemaphoreTest, SignalLeavesUnitsThatWerePostedAsTheyAre) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    semaphore.Post();
    semaphore.Post();
    semaphore.Signal();
    EXPECT_EQ(semaphore.Value(), 2);
}

TEST_F(SystemSemaphoreTest, TryTakeTakesOnlyWhatIsFree) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    EXPECT_FALSE(semaphore.TryTake());
    semaphore.Post();
    EXPECT_TRUE(semaphore.TryTake());
    EXPECT_EQ(semaphore.Value(), 0);
}

TEST_F(SystemSemaphoreTest, TakeEndsWithAUnitAStopOrTheDeadline) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    const auto now = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.Take(now, [] { return false; }));
    EXPECT_FALSE(semaphore.Take(std::nullopt, [] { return true; }));
    semaphore.Post();
    EXPECT_TRUE(semaphore.Take(now, [] { return false; }));
    EXPECT_EQ(semaphore.Value(), 0);
}

TEST_F(SystemSemaphoreTest, TakeForTakesAUnitThatIsFreeWhateverTheLimit) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    for (const microseconds limit :
         {microseconds::min(), microseconds(-1), microseconds(0), kLong, microseconds::max()}) {
        semaphore.Post();
        EXPECT_TRUE(semaphore.TakeFor(limit)) << limit.count();
        EXPECT_EQ(semaphore.Value(), 0);
    }
}

TEST_F(SystemSemaphoreTest, TakeForWithoutAUnitEndsWithTheTime) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    for (const microseconds limit :
         {microseconds::min(), microseconds(-1), microseconds(0), microseconds(1000)}) {
        EXPECT_FALSE(semaphore.TakeFor(limit)) << limit.count();
    }
    EXPECT_EQ(semaphore.Value(), 0);
}

TEST_F(SystemSemaphoreTest, SignalEndsAWait) {
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    Worker taker;
    auto taken = taker.StartBlocked([&] { return semaphore.TakeFor(kLong); }, SYS_futex);
    EXPECT_FALSE(IsReady(taken));
    semaphore.Signal();
    EXPECT_TRUE(taken.get());
    EXPECT_EQ(semaphore.Value(), 0);
}

TEST_F(SystemSemaphoreTest, SignalHandlerEndsAWaitWithoutAUnit) {
    struct sigaction handler {};
    handler.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &handler, &before), 0);
    const SystemSemaphore semaphore(name_, IfMissing::Create);
    Worker taker;
    auto taken = taker.StartBlocked([&] { return semaphore.TakeFor(kLong); }, SYS_futex);
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), taker.Thread(), SIGUSR1), 0);
    EXPECT_FALSE(taken.get());
    ASSERT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
}

// Two threads wake each other in turn: a wake-up that got lost would stop both.
TEST_F(SystemSemaphoreTest, NoSignalIsLost) {
    const UniqueSemaphoreName other;
    const SystemSemaphore there(name_, IfMissing::Create);
    const SystemSemaphore back(other.Name().substr(1), IfMissing::Create);
    constexpr int kRounds = 10000;
    std::atomic<int> sent{0};
    std::atomic<int> answered{0};
    std::thread answerer([&] {
        for (int round = 1; round <= kRounds; ++round) {
            while (sent.load() < round) {
                (void)there.TakeFor(kLong);
            }
            answered.store(round);
            back.Signal();
        }
    });
    for (int round = 1; round <= kRounds; ++round) {
        sent.store(round);
        there.Signal();
        there.Signal();
        while (answered.load() < round) {
            (void)back.TakeFor(kLong);
        }
    }
    answerer.join();
    EXPECT_LE(there.Value(), 1);
    EXPECT_LE(back.Value(), 1);
}

}  // namespace
}  // namespace qel::test
