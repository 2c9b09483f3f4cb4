// Processes of different users, and a creator whose descriptors the system keeps to itself.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

#include "Attempts.h"
#include "Obstacles.h"
#include "ProcessState.h"
#include "Rights.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

/// An ordinary user and another one.
constexpr uid_t kFirst = 65533;
constexpr uid_t kSecond = kNobody;
constexpr uid_t kRoot = 0;

class AnotherUser : public testing::Test {
protected:
    void SetUp() override {
        if (FateOf([] { return std::string(BecomeUser(kFirst) ? "became" : "stayed"); }) !=
            "became") {
            GTEST_SKIP() << "this process may not become another user";
        }
    }
    /// What `attempt` says to a process of `user`.
    template <typename Attempt>
    static std::string As(uid_t user, Attempt attempt) {
        return FateOf([&] {
            return user == kRoot || BecomeUser(user) ? attempt() : std::string("no such user");
        });
    }
    /// A process of `user` that has made the block and holds it.
    [[nodiscard]] std::unique_ptr<ChildProcess> Creator(uid_t user, bool dumpable = true,
                                                        mode_t mask = 022) const {
        auto child = std::make_unique<ChildProcess>([=](const Conversation& parent) {
            ::umask(mask);
            if (user != kRoot && !BecomeUser(user, dumpable)) {
                return 1;
            }
            ::prctl(PR_SET_DUMPABLE, dumpable ? 1 : 0);
            SharedMemoryBlockWriter writer(block_.Name(), kBlockSize);
            parent.Say("made");
            (void)parent.Hear();
            return 0;
        });
        EXPECT_EQ(child->Hear(), "made");
        return child;
    }
    [[nodiscard]] static bool IsRegularProtected() {
        return ReadFile("/proc/sys/fs/protected_regular") != "0\n";
    }

    const UniqueBlockName block_;
    const UniqueRingName ring_;
    const UniqueSemaphoreName semaphore_;
};

const std::string kNoBlock = "failed to open shared memory: file does not exist";

TEST_F(AnotherUser, IsRefusedARing) {
    ASSERT_EQ(As(kFirst, [&] { return TryRing(ring_.Name()); }), "works");
    EXPECT_EQ(As(kSecond, [&] { return TryRing(ring_.Name()); }),
              RingNotOpened(ring_.Name(), EACCES));
    EXPECT_EQ(As(kSecond, [&] { return TryOpenRing(ring_.Name()); }),
              "ring " + ring_.Name() + ": cannot open /" + ring_.Name() + ".shm: " + Errno(EACCES));
}

TEST_F(AnotherUser, IsRefusedASemaphoreWhateverItsMakersUmask) {
    ASSERT_EQ(As(kFirst,
                 [&] {
                     ::umask(0);
                     return TrySemaphore(semaphore_.Name());
                 }),
              "works");
    EXPECT_EQ(As(kSecond, [&] { return TrySemaphore(semaphore_.Name()); }),
              "Exception: Problem Creating Semaphore - 13\n"
              "Exception: Problem Creating Semaphore");
    EXPECT_EQ(As(kSecond, [&] { return TrySystemSemaphore(semaphore_.Name()); }),
              "cannot open semaphore " + semaphore_.Name() + ": " + Errno(EACCES));
}

TEST_F(AnotherUser, IsRefusedALockFile) {
    const auto creator = Creator(kFirst);
    const std::string refusal = "LockFile could not be opened" + Errno(EACCES);
    EXPECT_EQ(As(kSecond, [&] { return TryReader(block_.Name()); }), refusal);
    EXPECT_EQ(As(kSecond, [&] { return TryWriter(block_.Name()); }), refusal);
    EXPECT_EQ(As(kFirst, [&] { return TryReader(block_.Name()); }), "works");
}

// Even if the lock file is open to all, the way to the memory leads through the creator's process.
// The directory's owner is the lock file's here, so that no fs.protected_regular refuses it.
TEST_F(AnotherUser, DoesNotFindTheMemoryOfABlockWhoseLockFileIsOpenToAll) {
    const auto creator = Creator(kRoot, true, 0);
    EXPECT_EQ(As(kSecond, [&] { return TryReader(block_.Name()); }), kNoBlock);
}

TEST_F(AnotherUser, WithASizeMakesASecondBlockThere) {
    const auto creator = Creator(kRoot, true, 0);
    EXPECT_EQ(As(kSecond, [&] { return TryWriter(block_.Name()); }), "works");
    EXPECT_EQ(TryReader(block_.Name()), kNoBlock);  // the second one's record, which is gone
}

TEST_F(AnotherUser, BeingRootIsRefusedOnlyByTheKernelsProtectionOfFiles) {
    if (!MayTraceAll()) {
        GTEST_SKIP() << "this root may not look into the processes of others";
    }
    const auto creator = Creator(kFirst);
    EXPECT_EQ(TryReader(block_.Name()),
              IsRegularProtected() ? "LockFile could not be opened" + Errno(EACCES) : "works");
}

/// Who makes a block and who looks for it.
struct Pair {
    const char* name;
    uid_t creator;
    bool dumpable;
    uid_t reader;
    std::string result;
};

class ACreator : public AnotherUser, public testing::WithParamInterface<Pair> {};

TEST_P(ACreator, IsFoundOnlyByWhoMayLookIntoItsProcess) {
    const Pair& pair = GetParam();
    if (pair.creator != kRoot && pair.reader == kRoot && IsRegularProtected()) {
        GTEST_SKIP() << "fs.protected_regular refuses the lock file before that";
    }
    if (pair.reader == kRoot && !MayTraceAll()) {
        GTEST_SKIP() << "this root may not look into the processes of others";
    }
    const auto creator = Creator(pair.creator, pair.dumpable, 0);
    EXPECT_EQ(As(pair.reader, [&] { return TryReader(block_.Name()); }), pair.result);
}

INSTANTIATE_TEST_SUITE_P(
    That, ACreator,
    testing::Values(Pair{"IsOfTheSameUser", kFirst, true, kFirst, "works"},
                    Pair{"IsOfTheSameUserAndNotDumpable", kFirst, false, kFirst, kNoBlock},
                    Pair{"IsNotDumpableForRoot", kFirst, false, kRoot, "works"},
                    Pair{"IsRootAndNotDumpableForRoot", kRoot, false, kRoot, "works"}),
    [](const auto& row) { return row.param.name; });

// As a service does that starts as root and goes on as somebody else without executing a program.
TEST_F(AnotherUser, ThatAProcessHasBecomeMakesItNotDumpable) {
    EXPECT_EQ(FateOf([] {
                  const bool became = ::setresgid(kFirst, kFirst, kFirst) == 0 &&
                                      ::setresuid(kFirst, kFirst, kFirst) == 0;
                  return became ? std::to_string(::prctl(PR_GET_DUMPABLE)) : "stayed";
              }),
              ReadFile("/proc/sys/fs/suid_dumpable").substr(0, 1));
}

}  // namespace
}  // namespace qel::test
