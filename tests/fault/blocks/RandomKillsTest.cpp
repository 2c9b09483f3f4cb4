// Processes use one block without pause. One of them, whichever, is killed at whatever moment; the
// others must go on.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <iostream>
#include <memory>
#include <new>
#include <random>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "Finding.h"
#include "Leftovers.h"
#include "LongForm.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

constexpr std::size_t kProcesses = 4;  // every other one a writer
constexpr std::uint64_t kSize = 20000;
constexpr int kReads = 1;
constexpr int kWrites = 2;

/// What the processes have come to, in memory that all share.
struct Score {
    std::array<std::atomic<std::uint64_t>, kProcesses> locks{};  ///< taken so far, by each
    std::array<std::atomic<int>, kProcesses> held{};  ///< `kReads`, `kWrites` or none, by each
    std::atomic<std::uint64_t> refusals{0};           ///< of a record whose creator is gone
    std::atomic<std::uint64_t> torn{0};  ///< data found that a dead process had not finished
};

/// One of the processes. The data's first byte says that the rest is being written; all other bytes
/// are the same.
class User {
public:
    User(std::string name, std::size_t number, Score& score, unsigned seed)
        : name_(std::move(name)),
          locks_(score.locks.at(number)),
          held_(score.held.at(number)),
          score_(score),
          random_(seed) {}

    [[noreturn]] void Write() {
        for (;;) {
            SetSafetyAlarm();
            SharedMemoryBlockWriter block(name_, kSize);
            for (unsigned left = Draw(20); left > 0; --left) {
                Draw(2) == 0 ? WriteOnce(block) : ReadOnce(block);
                ::sched_yield();  // the others' turn, the killer's too
            }
        }
    }
    [[noreturn]] void Read() {
        for (;;) {
            SetSafetyAlarm();
            try {
                SharedMemoryBlockReader block(name_);
                for (unsigned left = Draw(20); left > 0; --left) {
                    ReadOnce(block);
                    ::sched_yield();
                }
            } catch (const std::runtime_error& error) {
                RequireRefusal(error);
                ::sched_yield();
            }
        }
    }

private:
    [[nodiscard]] unsigned Draw(std::uint64_t below) {
        return static_cast<unsigned>(random_() % below);
    }

    void WriteOnce(SharedMemoryBlockWriter& block) {
        if (Draw(2) == 0) {
            block.LockForWrite();
        } else if (!block.TryLockForWrite()) {
            return;
        }
        held_ = kWrites;
        ++locks_;
        volatile unsigned char* const data = block.GetDataForWrite();
        const auto value = static_cast<unsigned char>(Draw(256));
        const std::uint64_t pause = Draw(4) == 0 ? Draw(kSize) : 0;
        data[0] = 1;
        for (std::uint64_t i = 1; i < kSize; ++i) {
            data[i] = value;
            if (i == pause) {
                ::sched_yield();  // so that the killer is awake while data is torn
            }
        }
        data[0] = 0;
        held_ = 0;
        block.UnlockForWrite();
    }
    void ReadOnce(SharedMemoryBlockWriter& block) {
        if (Draw(2) == 0) {
            block.LockForRead();
        } else if (!block.TryLockForRead()) {
            return;
        }
        Check(block.GetDataForRead());
        block.UnlockForRead();
    }
    void ReadOnce(SharedMemoryBlockReader& block) {
        if (Draw(2) == 0) {
            block.Lock();
        } else if (!block.TryLock()) {
            return;
        }
        Check(block.GetData());
        block.Unlock();
    }
    void Check(const unsigned char* data) {
        held_ = kReads;
        ++locks_;
        score_.torn += data[0];
        if (Draw(4) == 0) {
            ::sched_yield();
        }
        for (std::uint64_t i = 2; i < kSize && data[0] == 0; ++i) {
            if (data[i] != data[1]) {
                throw std::logic_error("data that nobody has written at " + std::to_string(i));
            }
        }
        held_ = 0;
    }
    void RequireRefusal(const std::runtime_error& error) {
        const std::string text = error.what();
        if (!IsRefusalOfStaleRecord(text) &&
            text != "failed to open shared memory: failed to read lockFile to get metadata") {
            throw std::logic_error(text);
        }
        ++score_.refusals;
    }

    std::string name_;
    std::atomic<std::uint64_t>& locks_;
    std::atomic<int>& held_;
    Score& score_;
    std::minstd_rand random_;
};

class RandomKills : public ::testing::Test {
public:
    RandomKills(const RandomKills&) = delete;
    RandomKills& operator=(const RandomKills&) = delete;
    ~RandomKills() override {
        for (auto& process : processes_) {
            process.reset();
        }
        ::munmap(&score_, sizeof(Score));
    }

protected:
    RandomKills()
        : score_(*new (::mmap(nullptr, sizeof(Score), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Score) {
        for (std::size_t number = 0; number < kProcesses; ++number) {
            Start(number);
        }
    }
    void Start(std::size_t number) {
        const auto seed = static_cast<unsigned>(random_());
        processes_.at(number) = std::make_unique<ChildProcess>([&](const Conversation&) -> int {
            User user(name_.Name(), number, score_, seed);
            number % 2 == 0 ? user.Write() : user.Read();
        });
    }
    /// Waits until each process but `except` has taken the lock again. False if one has ended.
    [[nodiscard]] bool AwaitLocks(std::size_t except, std::uint64_t more = 1) const {
        std::array<std::uint64_t, kProcesses> before{};
        for (std::size_t number = 0; number < kProcesses; ++number) {
            before.at(number) = score_.locks.at(number);
        }
        for (std::size_t number = 0; number < kProcesses; ++number) {
            while (number != except && score_.locks.at(number) < before.at(number) + more) {
                siginfo_t ended{};
                if (::waitid(P_PID, static_cast<id_t>(processes_.at(number)->Pid()), &ended,
                             WEXITED | WNOHANG | WNOWAIT) == -1 ||
                    ended.si_pid != 0) {
                    return false;
                }
                ::sched_yield();
            }
        }
        return true;
    }
    /// Kills one at a moment that nobody knows, every other time while it holds the lock.
    void KillOne() {
        const std::size_t number = random_() % kProcesses;
        ASSERT_TRUE(AwaitLocks(kProcesses, random_() % 4)) << "a process has ended by itself";
        const bool holding = random_() % 2 == 0;
        for (int looks = 1000; holding && looks > 0 && score_.held.at(number) == 0; --looks) {
            ::sched_yield();
        }
        for (std::atomic<std::uint64_t> spins{holding ? 0 : random_() % 20000}; spins > 0;
             --spins) {
        }
        processes_.at(number)->Kill();
        ASSERT_EQ(processes_.at(number)->ExitCode(), -1);
        ++deaths_.at(static_cast<std::size_t>(score_.held.at(number).exchange(0)));
        ASSERT_TRUE(AwaitLocks(number)) << "a survivor has ended by itself";
        Start(number);
    }

    CapturedLog log_;
    UniqueBlockName name_;
    Score& score_;
    unsigned seed_ = std::random_device()();
    std::mt19937 random_{seed_};
    std::array<int, 3> deaths_{};  ///< by what was held
    std::array<std::unique_ptr<ChildProcess>, kProcesses> processes_;
};

TEST_F(RandomKills, StopNoSurvivor) {
    const int kills = IsLongForm() ? 10000 : 200;
    SCOPED_TRACE("seed " + std::to_string(seed_));
    for (int kill = 0; kill < kills && !HasFatalFailure(); ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        KillOne();
    }
    for (auto& process : processes_) {
        process.reset();
    }
    EXPECT_EQ(FindNext(name_.Name()).locks, "free");
    EXPECT_EQ(FilesNamed(name_.Name()), std::vector<std::string>{name_.LockPath()});
    EXPECT_TRUE(OtherHoldersOfMemory(name_.Name()).empty());
    std::uint64_t locks = 0;
    for (const auto& taken : score_.locks) {
        locks += taken;
    }
    std::cout << kills << " kills, " << deaths_[kReads] << " while reading, " << deaths_[kWrites]
              << " while writing; " << locks << " locks taken, data found torn " << score_.torn
              << " times, record found stale " << score_.refusals << " times\n";
}

}  // namespace
}  // namespace qel::test
