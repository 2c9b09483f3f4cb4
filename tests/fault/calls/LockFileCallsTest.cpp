// The lock file by itself, with its system calls refused.

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <optional>

#include "Explorer.h"
#include "LockFileFixture.h"

namespace qel::test {
namespace {

/// What is done with an open lock file.
struct LockFileUse {
    std::function<void(OpenLockFile&)> before;  ///< without faults
    std::function<std::string(OpenLockFile&)> run;
    std::function<void(OpenLockFile&)> giveBack;  ///< what a failure may have left
    bool makes = false;                           ///< the object is made by the operation
};

class LockFileScenario : public Scenario {
public:
    LockFileScenario(const World& world, LockFileUse use) : Scenario(world), use_(std::move(use)) {}

    [[nodiscard]] std::map<std::string, std::string> Marks() const override {
        return {{"{lock}", std::to_string(descriptor_)}};
    }
    void Prepare() override {
        OpenLockFile lock(names_.block.LockPath());
        lock.LockExclusive();
        const Record record = Content();
        EXPECT_TRUE(lock.Write(record.data(), record.size(), 0));
        lock.UnlockExclusive();
    }
    void Construct() override {
        descriptor_ = NextDescriptor();
        if (!use_.makes) {
            lock_.emplace(names_.block.LockPath());
            use_.before(*lock_);
        }
    }
    std::string Run() override {
        if (!lock_) {
            lock_.emplace(names_.block.LockPath());
        }
        return use_.run(*lock_);
    }
    std::string State() override {
        switch (LockOn(names_.block.LockPath())) {
            case Held::Shared:
                return "shared";
            case Held::Exclusive:
                return "exclusive";
            case Held::No:
                break;
        }
        return "not locked";
    }
    [[nodiscard]] bool CanRecover() const override { return !use_.makes; }
    std::string Recover() override {
        use_.giveBack(*lock_);
        EXPECT_EQ(State(), "not locked");
        use_.before(*lock_);
        return use_.run(*lock_);
    }
    void Destroy() override { lock_.reset(); }
    void Again() override {
        OpenLockFile lock(names_.block.LockPath());
        lock.LockShared();
        Record record{};
        EXPECT_TRUE(lock.Read(record.data(), record.size(), 0));
        EXPECT_EQ(record, Content()) << "the record that was there before";
        lock.UnlockShared();
        ASSERT_TRUE(lock.TryLockExclusive());
        lock.UnlockExclusive();
    }

    static Record Content() {
        Record record{};
        record.fill(0x5A);
        return record;
    }

private:
    LockFileUse use_;
    int descriptor_ = -1;
    std::optional<OpenLockFile> lock_;
};

void NoStep(OpenLockFile& /*lock*/) {}

std::vector<std::string> EndCalls() {
    return {"munmap(40)", "close(LOCK)"};
}

/// A lock that is taken and given back by two operations.
LockFileUse TakeAndGive(const std::function<bool(OpenLockFile&)>& take,
                        const std::function<void(OpenLockFile&)>& give,
                        bool (*isHeld)(const OpenLockFile&)) {
    return {NoStep,
            [=](OpenLockFile& lock) {
                if (!take(lock)) {
                    return "busy";
                }
                give(lock);
                return "locked and unlocked";
            },
            [=](OpenLockFile& lock) {
                if (isHeld(lock)) {
                    give(lock);
                }
            }};
}

bool IsExclusive(const OpenLockFile& lock) {
    return lock.Exclusive();
}

bool IsShared(const OpenLockFile& lock) {
    return lock.SharedHolders() > 0;
}

Outcome Refused(const std::string& operation) {
    const std::string text = operation + " failed to lock {LOCK}, fd:{lock}: {strerror}";
    return Throws(text).LogsOfLockFile(3, operation, text).State("not locked");
}

/// Not logged, and the system goes on holding the lock.
Outcome NotUnlocked(const std::string& state) {
    return Throws("failed to unlock:{strerror}").State(state);
}

Table LockingTable(const std::string& take, const std::string& operation, const Row& unlock) {
    Table table{Returns("locked and unlocked").State("not locked"),
                {At(take, Refused(operation)), unlock},
                {},
                EndCalls()};
    if (operation.rfind("Try", 0) == 0) {
        table.rows.push_back(At(take, Returns("busy").State("not locked")).For({EWOULDBLOCK}));
    }
    return table;
}

Row SharedUnlock() {
    return At("flock(LOCK, 8)", NotUnlocked("shared"));
}

Row ExclusiveUnlock() {
    return At("flock(LOCK, 8)", NotUnlocked("exclusive")).Ever(EndsProcess());
}

TEST(RefusedCallsOfALockFile, WhenItIsLockedShared) {
    const auto use = TakeAndGive(
        [](OpenLockFile& lock) {
            lock.LockShared();
            return true;
        },
        [](OpenLockFile& lock) { lock.UnlockShared(); }, IsShared);
    LockFileUse counted = use;
    counted.giveBack = [](OpenLockFile& lock) {
        EXPECT_EQ(lock.SharedHolders(), 0);
        lock.LockShared();
        lock.UnlockShared();
    };
    ExploreDirectCalls(Make<LockFileScenario>(counted),
                       LockingTable("flock(LOCK, 1)", "LockShared", SharedUnlock()));
}

TEST(RefusedCallsOfALockFile, WhenItIsTriedShared) {
    LockFileUse use = TakeAndGive([](OpenLockFile& lock) { return lock.TryLockShared(); },
                                  [](OpenLockFile& lock) { lock.UnlockShared(); }, IsShared);
    use.giveBack = [](OpenLockFile& lock) {
        EXPECT_EQ(lock.SharedHolders(), 0);
        EXPECT_TRUE(lock.TryLockShared());
        lock.UnlockShared();
    };
    ExploreDirectCalls(Make<LockFileScenario>(use),
                       LockingTable("flock(LOCK, 5)", "TryLockShared", SharedUnlock()));
}

TEST(RefusedCallsOfALockFile, WhenItIsLockedExclusively) {
    const auto use = TakeAndGive(
        [](OpenLockFile& lock) {
            lock.LockExclusive();
            return true;
        },
        [](OpenLockFile& lock) { lock.UnlockExclusive(); }, IsExclusive);
    ExploreDirectCalls(Make<LockFileScenario>(use),
                       LockingTable("flock(LOCK, 2)", "LockExclusive", ExclusiveUnlock()));
}

TEST(RefusedCallsOfALockFile, WhenItIsTriedExclusively) {
    const auto use = TakeAndGive([](OpenLockFile& lock) { return lock.TryLockExclusive(); },
                                 [](OpenLockFile& lock) { lock.UnlockExclusive(); }, IsExclusive);
    ExploreDirectCalls(Make<LockFileScenario>(use),
                       LockingTable("flock(LOCK, 6)", "TryLockExclusive", ExclusiveUnlock()));
}

TEST(RefusedCallsOfALockFile, WhenTheLockOfTheProcessIsGivenBack) {
    const LockFileUse use{[](OpenLockFile& lock) { lock.LockProcess(); },
                          [](OpenLockFile& lock) {
                              lock.UnlockProcess();
                              return lock.Process() ? "still held" : "given back";
                          },
                          [](OpenLockFile& lock) {
                              EXPECT_TRUE(lock.Process());
                              lock.UnlockProcess();
                          }};
    ExploreDirectCalls(Make<LockFileScenario>(use),
                       {Returns("given back").State("not locked"),
                        {At("flock(LOCK, 8)", NotUnlocked("exclusive")).Ever(EndsProcess())},
                        {},
                        EndCalls()});
}

TEST(RefusedCallsOfALockFile, WhenItIsOpenedAndLocked) {
    LockFileUse use{NoStep,
                    [](OpenLockFile& lock) {
                        lock.LockExclusive();
                        lock.UnlockExclusive();
                        return "locked and unlocked";
                    },
                    NoStep, true};
    Table table = LockingTable("flock(LOCK, 2)", "LockExclusive", ExclusiveUnlock());
    const std::string invalid = "Attempted to lock invalid LockFile ";
    for (const char* const call :
         {"open(LOCK, 655426, 438)", "fstat(LOCK)", "mmap(40, 3, 1, LOCK, 0)"}) {
        table.rows.push_back(
            At(call, Throws(invalid)
                         .LogsOfLockFile(4, "LockFileBase", "Failed to open lock file: {LOCK}")
                         .LogsOfLockFile(3, "LockExclusive", invalid)
                         .State("not locked")));
    }
    ExploreDirectCalls(Make<LockFileScenario>(use), table);
}

/// A file that somebody has cut short is repaired by the next write.
TEST(RefusedCallsOfALockFile, WhenItIsWrittenAfterItWasCutShort) {
    const auto cut = [](OpenLockFile& lock) {
        lock.LockExclusive();
        ASSERT_TRUE(lock.Resize(16));
    };
    const auto write = [](OpenLockFile& lock) {
        const Record record = LockFileScenario::Content();
        const bool written = lock.Write(record.data(), record.size(), 0);
        lock.UnlockExclusive();
        return written ? "written" : "not written";
    };
    const auto repair = [write](OpenLockFile& lock) { EXPECT_STREQ(write(lock), "written"); };
    const std::string text = "Failed to truncate file to specified length";
    const auto notSized = Throws(text).LogsOfLockFile(3, "Write", text).State("exclusive");
    Table table{Returns("written").State("not locked"),
                {At("posix_fallocate(LOCK, 0, 40)", notSized), At("ftruncate(LOCK, 40)", notSized),
                 At("mmap(40, 3, 1, LOCK, 0)", notSized), ExclusiveUnlock()},
                {"posix_fallocate(LOCK, 0, 40)"},
                {"munmap(16)", "munmap(40)", "close(LOCK)"}};

    /// What is cut off is lost whoever writes, so the record is written anew.
    class Cut : public LockFileScenario {
    public:
        using LockFileScenario::LockFileScenario;
        void Again() override {
            Prepare();
            LockFileScenario::Again();
        }
    };
    ExploreDirectCalls(Make<Cut>(LockFileUse{cut, write, repair}), table);
}

TEST(RefusedCallsOfALockFile, WhenItIsReadNoCallIsMade) {
    const LockFileUse use{[](OpenLockFile& lock) { lock.LockShared(); },
                          [](OpenLockFile& lock) {
                              Record record{};
                              return lock.Read(record.data(), record.size(), 0) ? "read" : "empty";
                          },
                          NoStep};
    ExploreDirectCalls(
        Make<LockFileScenario>(use),
        {Returns("read").State("shared"), {At("flock(LOCK, 8)", EndsProcess())}, {}, EndCalls()});
}

}  // namespace
}  // namespace qel::test
