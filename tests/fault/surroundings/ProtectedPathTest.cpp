// Files of another user at the paths of lock files, rings and semaphores, with the kernel's
// protection of world-writable sticky directories (fs.protected_*) off, on and at its strictest.
// These settings are the whole machine's: these tests run alone.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "Attempts.h"
#include "KernelProtection.h"
#include "Obstacles.h"
#include "Rights.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

struct Level {
    const char* name;
    KernelProtection::Settings settings;

    [[nodiscard]] bool IsOn() const { return settings.regular != 0; }
};

class WithProtection : public testing::TestWithParam<Level> {
protected:
    void SetUp() override {
        if (!IsRoot()) {
            GTEST_SKIP() << "only root can change the kernel's settings";
        }
        if (!protection_.IsInForce()) {
            GTEST_SKIP() << "the kernel's settings cannot be changed here";
        }
    }
    [[nodiscard]] static bool IsOn() { return GetParam().IsOn(); }

    /// Makes a file of `owner` that everybody may read and write.
    static void MakeFile(const std::string& path, uid_t owner, const std::string& content = "") {
        WriteFile(path, content);
        ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
        ASSERT_EQ(::lchown(path.c_str(), owner, owner), 0);
    }
    /// What `attempt` says to a process of another user.
    template <typename Attempt>
    static std::string AsNobody(Attempt attempt) {
        return FateOf([&] { return BecomeUser(kNobody) ? attempt() : kNotRoot; });
    }
    static std::string NoLockFile(int error) {
        return "LockFile could not be opened" + Errno(error);
    }

    const UniqueBlockName block_;
    const UniqueRingName ring_;
    const UniqueSemaphoreName semaphore_;
    const KernelProtection protection_{GetParam().settings};
};

constexpr const char* kNoRecord =
    "failed to open shared memory: failed to read lockFile to get metadata";

TEST_P(WithProtection, AnotherUsersLockFileIsRefusedEvenToRoot) {
    MakeFile(block_.LockPath(), kNobody);
    EXPECT_EQ(TryReader(block_.Name()), IsOn() ? NoLockFile(EACCES) : kNoRecord);
    EXPECT_EQ(TryWriter(block_.Name()), IsOn() ? NoLockFile(EACCES) : "works");
}

TEST_P(WithProtection, AnotherUsersRingIsRefusedEvenToRoot) {
    MakeFile(ring_.Path(), kNobody);
    EXPECT_EQ(TryOpenRing(ring_.Name()), IsOn() ? "ring " + ring_.Name() + ": cannot open /" +
                                                      ring_.Name() + ".shm: " + Errno(EACCES)
                                                : "works");
    EXPECT_EQ(TryRing(ring_.Name()), IsOn() ? RingNotOpened(ring_.Name(), EACCES) : "works");
}

TEST_P(WithProtection, AFileOfTheDirectorysOwnerIsNotRefusedToAnybody) {
    MakeFile(block_.LockPath(), 0);
    MakeFile(ring_.Path(), 0);
    EXPECT_EQ(AsNobody([&] { return TryReader(block_.Name()); }), kNoRecord);
    EXPECT_EQ(AsNobody([&] { return TryRing(ring_.Name()); }), "works");
}

// A semaphore that exists is not opened as one to be created.
TEST_P(WithProtection, AnotherUsersSemaphoreIsNotRefusedToRoot) {
    EXPECT_EQ(AsNobody([&] { return TrySemaphore(semaphore_.Name()); }), "works");
    EXPECT_EQ(TrySemaphore(semaphore_.Name()), "works");
    EXPECT_EQ(TrySystemSemaphore(semaphore_.Name()), "works");
}

TEST_P(WithProtection, AnotherUsersFifoIsRefused) {
    for (const std::string& path : {block_.LockPath(), ring_.Path()}) {
        ASSERT_TRUE(Fifo(path, ""));
        ASSERT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0);
    }
    EXPECT_EQ(TryReader(block_.Name()), NoLockFile(IsOn() ? EACCES : EINVAL));
    EXPECT_EQ(TryWriter(block_.Name()), NoLockFile(IsOn() ? EACCES : EINVAL));
    EXPECT_EQ(TryRing(ring_.Name()),
              IsOn() ? RingNotOpened(ring_.Name(), EACCES) : RingNotSized(ring_.Name(), EINVAL));
}

// The libraries follow no link; the kernel does not even look whether they would.
TEST_P(WithProtection, AnotherUsersLinkIsRefusedAndWhatItLeadsToIsNotTouched) {
    for (const std::string& path : {block_.LockPath(), ring_.Path()}) {
        const Removed precious(path + ".precious");
        ASSERT_TRUE(LinkTo(path, precious.Path()));
        ASSERT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0);
        if (path == ring_.Path()) {
            EXPECT_EQ(TryRing(ring_.Name()), RingNotOpened(ring_.Name(), EACCES));
        } else {
            EXPECT_EQ(TryReader(block_.Name()), NoLockFile(EACCES));
            EXPECT_EQ(TryWriter(block_.Name()), NoLockFile(EACCES));
        }
        EXPECT_EQ(ReadFile(precious.Path()), kPrecious);
    }
}

/// Has another user make a second name, `path`, for root's file `precious`; what came of it.
std::string LinkByNobody(const std::string& precious, const std::string& path) {
    WriteFile(precious, kPrecious);
    return FateOf([&] {
        if (!BecomeUser(kNobody)) {
            return kNotRoot;
        }
        return ::link(precious.c_str(), path.c_str()) == 0 ? std::string("linked") : Errno(errno);
    });
}

// A second name of a file cannot be told from its first.
TEST_P(WithProtection, AnotherUserCanHaveRootCutAFileOfItsOwnOnlyIfHardLinksAreNotProtected) {
    const Removed precious(block_.LockPath() + ".precious");
    const bool safe = GetParam().settings.hardlinks != 0;
    EXPECT_EQ(LinkByNobody(precious.Path(), block_.LockPath()), safe ? Errno(EPERM) : "linked");
    (void)TryReader(block_.Name());
    EXPECT_EQ(ReadFile(precious.Path()), safe ? kPrecious : std::string(40, 'p'));
}

TEST_P(WithProtection, AnotherUserCanHaveRootUseAFileOfItsOwnAsARingOnlyIfHardLinksAreNot) {
    const Removed precious(ring_.Path() + ".precious");
    const bool safe = GetParam().settings.hardlinks != 0;
    EXPECT_EQ(LinkByNobody(precious.Path(), ring_.Path()), safe ? Errno(EPERM) : "linked");
    if (!safe) {
        EXPECT_EQ(TryOpenRing(ring_.Name()), "ring " + ring_.Name() +
                                                 " exists with a size of 48 bytes, not " +
                                                 std::to_string(kRingSize));
        EXPECT_EQ(ReadFile(precious.Path()), kPrecious);
    }
    EXPECT_EQ(TryRing(ring_.Name()), "works");
    EXPECT_EQ(ReadFile(precious.Path()).size(), safe ? kPrecious.size() : kRingSize + 152);
}

INSTANTIATE_TEST_SUITE_P(Being, WithProtection,
                         testing::Values(Level{"Off", {0, 0, 0, 0}}, Level{"On", {1, 1, 1, 1}},
                                         Level{"Strict", {1, 1, 2, 2}}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qel::test
