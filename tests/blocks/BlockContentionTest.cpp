// Locks of one block between two threads, two handles of one process, and two processes.

#include <sys/syscall.h>

#include <csignal>
#include <functional>
#include <optional>

#include "BlockFixture.h"
#include "ChildProcess.h"
#include "Worker.h"

namespace qel::test {
namespace {

enum class Kind { Read, Write };
enum class Between { Threads, Handles, Processes };

void Take(SharedMemoryBlock& block, Kind kind) {
    kind == Kind::Read ? block.LockForRead() : block.LockForWrite();
}
bool TryToTake(SharedMemoryBlock& block, Kind kind) {
    return kind == Kind::Read ? block.TryLockForRead() : block.TryLockForWrite();
}
void GiveBack(SharedMemoryBlock& block, Kind kind) {
    kind == Kind::Read ? block.UnlockForRead() : block.UnlockForWrite();
}

struct Pairing {
    Between between;
    Kind held;
    Kind wanted;

    [[nodiscard]] bool Compatible() const { return held == Kind::Read && wanted == Kind::Read; }
};

std::string PairingName(const ::testing::TestParamInfo<Pairing>& info) {
    const char* const places[] = {"Threads", "Handles", "Processes"};
    const char* const kinds[] = {"Read", "Write"};
    return std::string(places[static_cast<int>(info.param.between)]) +
           kinds[static_cast<int>(info.param.held)] + "Then" +
           kinds[static_cast<int>(info.param.wanted)];
}

/// This test's own thread holds a lock; somebody else, told what to do by name, wants another.
class BlockContention : public BlockTest, public ::testing::WithParamInterface<Pairing> {
protected:
    void SetUp() override {
        if (GetParam().between == Between::Processes) {
            // Forked before this process has a thread, a lock or a block of its own.
            process_.emplace([this](const Conversation& parent) { return Serve(parent); });
        }
        block_ = Creator();
        if (process_) {
            process_->Say("open");
            ASSERT_EQ(process_->Hear(), "done");
        } else {
            worker_.emplace();
            handle_ = GetParam().between == Between::Handles ? Creator(0) : nullptr;
        }
    }
    /// The other side's work in a process of its own.
    int Serve(const Conversation& parent) {
        (void)parent.Hear();
        const auto block = Creator(0);
        parent.Say("done");
        for (std::string order = parent.Hear(); !order.empty(); order = parent.Hear()) {
            if (order == "try") {
                parent.Say(TryToTake(*block, GetParam().wanted) ? "yes" : "no");
                continue;
            }
            order == "lock" ? Take(*block, GetParam().wanted) : GiveBack(*block, GetParam().wanted);
            parent.Say("done");
        }
        return 0;
    }
    SharedMemoryBlock& Theirs() { return handle_ ? *handle_ : *block_; }

    bool TheyTry() {
        if (process_) {
            process_->Say("try");
            return process_->Hear() == "yes";
        }
        return worker_->Do([this] { return TryToTake(Theirs(), GetParam().wanted); });
    }
    void TheyLock() {
        if (process_) {
            process_->Say("lock");
            ASSERT_EQ(process_->Hear(), "done");
            return;
        }
        worker_->Do([this] { Take(Theirs(), GetParam().wanted); });
    }
    /// Begins to take a lock that is not free. True when they wait for it.
    bool TheyBeginToLock() {
        if (process_) {
            process_->Say("lock");
            return AwaitBlocked(process_->Pid(), SYS_flock);
        }
        const bool inMemory = GetParam().between == Between::Threads;
        locking_ = worker_->StartBlocked([this] { Take(Theirs(), GetParam().wanted); },
                                         inMemory ? SYS_futex : SYS_flock);
        return !IsReady(locking_);
    }
    void TheyHaveLocked() { process_ ? (void)process_->Hear() : locking_.get(); }
    void TheyUnlock() {
        if (process_) {
            process_->Say("unlock");
            (void)process_->Hear();
            return;
        }
        worker_->Do([this] { GiveBack(Theirs(), GetParam().wanted); });
    }

    std::unique_ptr<SharedMemoryBlock> block_;
    std::unique_ptr<SharedMemoryBlock> handle_;
    std::optional<ChildProcess> process_;
    std::optional<Worker> worker_;
    std::future<void> locking_;
};

TEST_P(BlockContention, IsDecidedAtOnceByTrying) {
    Take(*block_, GetParam().held);

    const bool theirs = TheyTry();
    EXPECT_EQ(theirs, GetParam().Compatible());
    if (theirs) {
        TheyUnlock();
    }
    EXPECT_EQ(Lock(), GetParam().held == Kind::Read ? Held::Shared : Held::Exclusive);

    GiveBack(*block_, GetParam().held);
    EXPECT_TRUE(TheyTry());
    TheyUnlock();
    EXPECT_EQ(Lock(), Held::No);
}

TEST_P(BlockContention, IsWaitedForByLockingUnlessBothRead) {
    Take(*block_, GetParam().held);
    if (GetParam().Compatible()) {
        TheyLock();
        GiveBack(*block_, GetParam().held);
        EXPECT_EQ(Lock(), Held::Shared);
        TheyUnlock();
        EXPECT_EQ(Lock(), Held::No);
        return;
    }

    EXPECT_TRUE(TheyBeginToLock());

    GiveBack(*block_, GetParam().held);
    TheyHaveLocked();
    EXPECT_EQ(Lock(), GetParam().wanted == Kind::Read ? Held::Shared : Held::Exclusive);
    TheyUnlock();
    EXPECT_EQ(Lock(), Held::No);
}

INSTANTIATE_TEST_SUITE_P(Of, BlockContention,
                         ::testing::Values(Pairing{Between::Threads, Kind::Read, Kind::Read},
                                           Pairing{Between::Threads, Kind::Read, Kind::Write},
                                           Pairing{Between::Threads, Kind::Write, Kind::Read},
                                           Pairing{Between::Threads, Kind::Write, Kind::Write},
                                           Pairing{Between::Handles, Kind::Read, Kind::Read},
                                           Pairing{Between::Handles, Kind::Read, Kind::Write},
                                           Pairing{Between::Handles, Kind::Write, Kind::Read},
                                           Pairing{Between::Handles, Kind::Write, Kind::Write},
                                           Pairing{Between::Processes, Kind::Read, Kind::Read},
                                           Pairing{Between::Processes, Kind::Read, Kind::Write},
                                           Pairing{Between::Processes, Kind::Write, Kind::Read},
                                           Pairing{Between::Processes, Kind::Write, Kind::Write}),
                         PairingName);

class AKilledHolder : public BlockTest, public ::testing::WithParamInterface<Kind> {};

TEST_P(AKilledHolder, GivesItsLockToTheNext) {
    ChildProcess holder([this](const Conversation& parent) {
        (void)parent.Hear();
        const auto block = Creator(0);
        Take(*block, GetParam());
        if (GetParam() == Kind::Write) {
            std::memcpy(block->GetDataForWrite(), "half", 4);
        }
        parent.Say("locked");
        (void)parent.Hear();
        return 0;
    });
    const auto block = Creator();
    holder.Say("go");
    ASSERT_EQ(holder.Hear(), "locked");
    EXPECT_FALSE(block->TryLockForWrite());
    Worker other;
    auto locked = other.StartBlocked([&] { block->LockForWrite(); }, SYS_flock);
    EXPECT_FALSE(IsReady(locked));

    holder.Kill();

    locked.get();
    EXPECT_TRUE(WIFSIGNALED(holder.Wait()));
    EXPECT_EQ(
        other.Do([&] { return std::string(1, static_cast<char>(*block->GetDataForWrite())); }),
        GetParam() == Kind::Write ? "h" : std::string(1, '\0'));
    other.Do([&] { block->UnlockForWrite(); });
    EXPECT_EQ(Lock(), Held::No);
}

INSTANTIATE_TEST_SUITE_P(Of, AKilledHolder, ::testing::Values(Kind::Read, Kind::Write),
                         [](const auto& kind) {
                             return kind.param == Kind::Read ? "AReadLock" : "AWriteLock";
                         });

class AnInterruptedLock : public BlockTest, public ::testing::WithParamInterface<Kind> {};

TEST_P(AnInterruptedLock, FailsWithTheReasonAndCanBeTakenAgain) {
    struct sigaction before {};
    struct sigaction action {};
    action.sa_handler = [](int /*signal*/) {};  // without SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    const auto block = Creator();
    Worker other;
    {
        const ForeignLock foreign(lockPath_, LOCK_EX);
        auto locked = other.StartBlocked([&] { Take(*block, GetParam()); }, SYS_flock);
        ASSERT_FALSE(IsReady(locked));

        ::syscall(SYS_tgkill, ::getpid(), other.Thread(), SIGUSR1);

        EXPECT_THAT(Thrown([&] { locked.get(); }),
                    ::testing::MatchesRegex(
                        std::string(GetParam() == Kind::Read ? "LockShared" : "LockExclusive") +
                        " failed to lock " + lockPath_ + ", fd:[0-9]+: Interrupted system call"));
    }
    EXPECT_EQ(other.Do([&] { return Thrown([&] { (void)block->GetDataForRead(); }); }),
              "GetDataForRead called without proper locking");
    EXPECT_EQ(other.Do([&] { return Thrown([&] { (void)block->GetDataForWrite(); }); }),
              "GetDataForWrite called without proper locking");
    Put(*block, "usable");
    EXPECT_EQ(DataOf(*block).substr(0, 6), "usable");
    ::sigaction(SIGUSR1, &before, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Of, AnInterruptedLock, ::testing::Values(Kind::Read, Kind::Write),
                         [](const auto& kind) {
                             return kind.param == Kind::Read ? "AReader" : "AWriter";
                         });

}  // namespace
}  // namespace qel::test
