// Many threads that lock one block at random. Under a race detector the clean run is silent and a
// seeded fault is reported.

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "BlockFixture.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QEV_RACE_DETECTOR
#endif
#elif defined(__SANITIZE_THREAD__)
#define QEV_RACE_DETECTOR
#endif

namespace qel::test {
namespace {

constexpr int kThreads = 8;
constexpr int kSteps = 300;
constexpr std::size_t kWords = 64;

/// The block's data as words, which a writer makes all alike.
template <typename Byte>
auto* Words(Byte* data) {
    if constexpr (std::is_const_v<Byte>) {
        return reinterpret_cast<const std::uint64_t*>(data);
    } else {
        return reinterpret_cast<std::uint64_t*>(data);
    }
}

struct Counts {
    std::uint64_t writes = 0;
    std::uint64_t reads = 0;
    std::uint64_t refusals = 0;
    std::uint64_t torn = 0;
};

void Write(SharedMemoryBlock& block, Counts& counts) {
    std::uint64_t* const words = Words(block.GetDataForWrite());
    for (std::size_t i = 0; i < kWords; ++i) {
        ++words[i];
    }
    ++counts.writes;
    block.UnlockForWrite();
}

void Read(SharedMemoryBlock& block, Counts& counts) {
    const std::uint64_t* const words = Words(block.GetDataForRead());
    counts.torn +=
        std::all_of(words, words + kWords, [words](std::uint64_t word) { return word == words[0]; })
            ? 0
            : 1;
    ++counts.reads;
    block.UnlockForRead();
}

/// One thread's part: locks in each of the four ways, in an order that `seed` decides.
Counts LockAtRandom(SharedMemoryBlock& block, unsigned seed) {
    std::mt19937 random(seed);
    Counts counts;
    for (int step = 0; step < kSteps; ++step) {
        switch (random() % 4) {
            case 0:
                block.LockForWrite();
                Write(block, counts);
                break;
            case 1:
                block.LockForRead();
                Read(block, counts);
                break;
            case 2:
                block.TryLockForWrite() ? Write(block, counts) : void(++counts.refusals);
                break;
            default:
                block.TryLockForRead() ? Read(block, counts) : void(++counts.refusals);
                break;
        }
    }
    return counts;
}

class BlockRacing : public BlockTest {
protected:
    static Counts LockByManyThreads(SharedMemoryBlock& block) {
        std::vector<Counts> counts(kThreads);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] { counts[i] = LockAtRandom(block, 20240101 + i); });
        }
        Counts sum;
        for (unsigned i = 0; i < kThreads; ++i) {
            threads[i].join();
            sum.writes += counts[i].writes;
            sum.reads += counts[i].reads;
            sum.refusals += counts[i].refusals;
            sum.torn += counts[i].torn;
        }
        return sum;
    }
};
using BlockRacingDeathTest = BlockRacing;

TEST_F(BlockRacing, OfManyThreadsOnOneBlockLosesAndTearsNothing) {
    const auto block = Creator(kWords * sizeof(std::uint64_t));

    const Counts counts = LockByManyThreads(*block);

    EXPECT_EQ(counts.torn, 0U);
    EXPECT_EQ(counts.writes + counts.reads + counts.refusals,
              static_cast<std::uint64_t>(kThreads * kSteps));
    EXPECT_GT(counts.writes, 0U);
    EXPECT_GT(counts.reads, 0U);
    block->LockForRead();
    EXPECT_EQ(Words(block->GetDataForRead())[0], counts.writes);
    block->UnlockForRead();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_F(BlockRacing, OfHandlesThatMeetThroughTheFileLosesAndTearsNothing) {
    const auto first = Creator(kWords * sizeof(std::uint64_t));
    const auto second = Creator(0);
    std::vector<Counts> counts(kThreads);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
        threads.emplace_back(
            [&, i] { counts[i] = LockAtRandom(i % 2 == 0 ? *first : *second, 20240201 + i); });
    }
    std::uint64_t writes = 0;
    for (unsigned i = 0; i < kThreads; ++i) {
        threads[i].join();
        writes += counts[i].writes;
        EXPECT_EQ(counts[i].torn, 0U);
    }
    first->LockForRead();
    EXPECT_EQ(Words(first->GetDataForRead())[0], writes);
    first->UnlockForRead();
}

#ifdef QEV_RACE_DETECTOR

/// Locks at random, and then one thread writes through a pointer that it has kept, while another
/// holds the write lock. The flags between the two say nothing of the order of memory.
void RaceOnPurpose(SharedMemoryBlock& block) {
    std::atomic<bool> locked{false};
    std::atomic<bool> written{false};
    std::atomic<std::uint64_t*> kept{nullptr};
    std::thread faulty([&] {
        while (!locked.load(std::memory_order_relaxed)) {
            std::this_thread::yield();
        }
        ++*kept.load(std::memory_order_relaxed);
        written.store(true, std::memory_order_relaxed);
    });
    block.LockForWrite();
    std::uint64_t* const words = Words(block.GetDataForWrite());
    ++words[0];
    kept.store(words, std::memory_order_relaxed);
    locked.store(true, std::memory_order_relaxed);
    while (!written.load(std::memory_order_relaxed)) {
        std::this_thread::yield();
    }
    block.UnlockForWrite();
    faulty.join();
}

TEST_F(BlockRacingDeathTest, AroundTheLockIsReported) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const auto block = Creator(kWords * sizeof(std::uint64_t));
            (void)LockByManyThreads(*block);
            RaceOnPurpose(*block);
            ::unlink(lockPath_.c_str());  // nothing is destroyed on this way out
            std::exit(0);
        },
        ::testing::ExitedWithCode(66), "WARNING: ThreadSanitizer: data race");
}

#else

TEST_F(BlockRacingDeathTest, AroundTheLockIsReported) {
    GTEST_SKIP() << "there is no race detector in this build";
}

#endif

}  // namespace
}  // namespace qel::test
