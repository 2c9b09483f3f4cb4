// A process that waits for a block's lock is killed.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cstring>
#include <memory>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "Finding.h"
#include "ProcessState.h"
#include "Scenes.h"
#include "Sys.h"
#include "UniqueBlockName.h"

namespace qel::test {
namespace {

struct Waiting {
    const char* name;
    Role role;  ///< what it has open
    void (*wait)(Actor& actor);
};

class AProcessThatWaits : public ::testing::TestWithParam<Waiting> {
protected:
    /// A process that waits as `waiting` says, for as long as this process holds the lock.
    std::unique_ptr<ChildProcess> Start(const Waiting& waiting) const {
        auto process = std::make_unique<ChildProcess>([&](const Conversation& parent) {
            SetSafetyAlarm();
            Actor actor(name_.Name(), waiting.role);
            parent.Say("ready");
            (void)parent.Hear();
            waiting.wait(actor);
            parent.Say("has it");
            return 0;
        });
        EXPECT_EQ(process->Hear(), "ready");
        return process;
    }
    static void LetWait(const ChildProcess& process) {
        process.Say("wait");
        ASSERT_TRUE(AwaitBlocked(process.Pid(), SYS_flock));
    }

    CapturedLog log_;
    UniqueBlockName name_;
    SharedMemoryBlock block_{std::make_shared<Sys>(), name_.Name(), true, kDataSize};
};

TEST_P(AProcessThatWaits, AndIsKilledLeavesTheLockToThoseBehindIt) {
    const auto dead = Start(GetParam());
    const auto writer = Start({"", Role::Writer, [](Actor& actor) {
                                   actor.Block().LockForWrite();
                                   std::memset(actor.Block().GetDataForWrite(), kOld, kDataSize);
                                   actor.Block().UnlockForWrite();
                               }});
    const auto reader = Start({"", Role::Reader, [](Actor& actor) {
                                   actor.Block().LockForRead();
                                   actor.Block().UnlockForRead();
                               }});
    block_.LockForWrite();
    LetWait(*dead);
    LetWait(*writer);
    LetWait(*reader);

    dead->Kill();
    EXPECT_EQ(dead->ExitCode(), -1);

    EXPECT_EQ(LockOn(name_.LockPath()), Held::Exclusive);
    std::memset(block_.GetDataForWrite(), kNew, kDataSize);
    block_.UnlockForWrite();
    EXPECT_EQ(writer->Hear(), "has it");
    EXPECT_EQ(reader->Hear(), "has it");
    EXPECT_EQ(DataInWords(block_), "data as before");
    EXPECT_EQ(FindNext(name_.Name()).locks, "free");
}

INSTANTIATE_TEST_SUITE_P(
    For, AProcessThatWaits,
    ::testing::Values(
        Waiting{"AReadLock", Role::Reader, [](Actor& actor) { actor.Block().LockForRead(); }},
        Waiting{"AWriteLock", Role::Writer, [](Actor& actor) { actor.Block().LockForWrite(); }},
        Waiting{"OpeningTheBlock", Role::None, [](Actor& actor) { actor.Construct(false); }},
        Waiting{"AttachingToTheBlock", Role::None, [](Actor& actor) { actor.Construct(true); }},
        Waiting{"CreatingTheBlock", Role::None,
                [](Actor& actor) { actor.Construct(true, kDataSize); }}),
    [](const auto& waiting) { return waiting.param.name; });

}  // namespace
}  // namespace qel::test
