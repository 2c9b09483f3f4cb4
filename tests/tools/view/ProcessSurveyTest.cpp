#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "File.h"
#include "NodeClaim.h"
#include "ProcessSurvey.h"
#include "RingObject.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UserText.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

/// The one process that uses the file at `path`, as the survey has it; nothing if there is none.
std::vector<ObjectUser> UsersOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return ProcessSurvey::Take().UsersOf(status.st_dev, status.st_ino);
}

class SurveyOfARing : public testing::Test {
protected:
    /// A process that has done `prepare` and waits.
    template <typename Prepare>
    [[nodiscard]] static ChildProcess Holding(Prepare prepare) {
        return ChildProcess([prepare](const Conversation& test) {
            [[maybe_unused]] const auto held = prepare();
            test.Say("ready");
            (void)test.Hear();
            return 0;
        });
    }

    UniqueRingName name_;
    RingObject object_{name_.Name(), 5000};
};

TEST_F(SurveyOfARing, ThatNobodyUsesFindsNobodyNotEvenItself) {
    const File open_here(open(name_.Path().c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(UsersOf(name_.Path()).empty());
}

TEST_F(SurveyOfARing, FindsWhoHasItOpenAndHow) {
    auto child = Holding([&] { return File(open(name_.Path().c_str(), O_RDONLY | O_CLOEXEC)); });
    ASSERT_EQ(child.Hear(), "ready");
    const auto users = UsersOf(name_.Path());
    ASSERT_EQ(users.size(), 1U);
    EXPECT_EQ(users[0].pid, child.Pid());
    EXPECT_EQ(users[0].uid, geteuid());
    EXPECT_FALSE(users[0].command.empty());
    EXPECT_FALSE(users[0].maps);
    ASSERT_EQ(users[0].descriptors.size(), 1U);
    EXPECT_FALSE(users[0].descriptors[0].writes);
    EXPECT_TRUE(users[0].Nodes().empty());
    EXPECT_EQ(UserText(users[0]), std::to_string(child.Pid()) + " " + users[0].command);
}

TEST_F(SurveyOfARing, FindsWhoMapsIt) {
    auto child = Holding([&] {
        const File file(open(name_.Path().c_str(), O_RDWR | O_CLOEXEC));
        return mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file.Fd(), 0);
    });
    ASSERT_EQ(child.Hear(), "ready");
    const auto users = UsersOf(name_.Path());
    ASSERT_EQ(users.size(), 1U);
    EXPECT_EQ(users[0].pid, child.Pid());
    EXPECT_TRUE(users[0].maps);
    EXPECT_TRUE(users[0].descriptors.empty());
}

TEST_F(SurveyOfARing, FindsTheNodesThatAreClaimed) {
    auto child = Holding([&] {
        return std::make_pair(std::make_unique<NodeClaim>(name_.Name(), 3),
                              std::make_unique<NodeClaim>(name_.Name(), 1));
    });
    ASSERT_EQ(child.Hear(), "ready");
    const auto users = UsersOf(name_.Path());
    ASSERT_EQ(users.size(), 1U);
    EXPECT_EQ(users[0].descriptors.size(), 2U);
    EXPECT_THAT(users[0].Nodes(), ElementsAre(1U, 3U));
    EXPECT_EQ(UserText(users[0]),
              std::to_string(child.Pid()) + " " + users[0].command + " (node 1, node 3)");
}

TEST_F(SurveyOfARing, FindsItAlsoWhenItsNameIsGone) {
    struct stat status {};
    ASSERT_EQ(stat(name_.Path().c_str(), &status), 0);
    auto child = Holding([&] { return File(open(name_.Path().c_str(), O_RDWR | O_CLOEXEC)); });
    ASSERT_EQ(child.Hear(), "ready");
    object_.Remove();
    const auto survey = ProcessSurvey::Take();
    ASSERT_EQ(survey.UsersOf(status.st_dev, status.st_ino).size(), 1U);
}

/// As a container has it that shares this one's shared memory.
TEST_F(SurveyOfARing, FindsWhoKnowsItUnderAnotherPath) {
    ChildProcess child([&](const Conversation& test) {
        const std::string other = "/mnt/" + name_.Name() + ".shm";
        const bool isThere = unshare(CLONE_NEWNS) == 0 &&
                             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                             mount("/dev/shm", "/mnt", nullptr, MS_BIND, nullptr) == 0;
        if (!isThere) {
            test.Say("refused");
            return 0;
        }
        {
            const File file(open(other.c_str(), O_RDWR | O_CLOEXEC));
            (void)mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file.Fd(), 0);
        }
        test.Say("ready");
        (void)test.Hear();
        return 0;
    });
    if (child.Hear() == "refused") {
        GTEST_SKIP() << "this user may not mount";
    }
    const auto users = UsersOf(name_.Path());
    ASSERT_EQ(users.size(), 1U);
    EXPECT_EQ(users[0].pid, child.Pid());
    EXPECT_TRUE(users[0].mapsToWrite);
}

TEST_F(SurveyOfARing, TellsWhoIsStopped) {
    auto child = Holding([&] { return File(open(name_.Path().c_str(), O_RDWR | O_CLOEXEC)); });
    ASSERT_EQ(child.Hear(), "ready");
    ASSERT_EQ(kill(child.Pid(), SIGSTOP), 0);
    ASSERT_EQ(waitpid(child.Pid(), nullptr, WUNTRACED), child.Pid());
    const auto users = UsersOf(name_.Path());
    ASSERT_EQ(users.size(), 1U);
    EXPECT_EQ(users[0].state, 'T');
    EXPECT_EQ(UserText(users[0]),
              std::to_string(child.Pid()) + " " + users[0].command + " (stopped)");
    ASSERT_EQ(kill(child.Pid(), SIGCONT), 0);
}

TEST(SurveyOfALockFile, TellsHowItIsLocked) {
    const UniqueBlockName name;
    const File made(open(name.LockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    for (const auto& [operation, expected] : {std::pair(LOCK_SH, OpenDescriptor::Lock::Shared),
                                              {LOCK_EX, OpenDescriptor::Lock::Exclusive},
                                              {LOCK_UN, OpenDescriptor::Lock::None}}) {
        ChildProcess child([&, how = operation](const Conversation& test) {
            const File file(open(name.LockPath().c_str(), O_RDWR | O_CLOEXEC));
            test.Say(flock(file.Fd(), how) == 0 ? "ready" : "refused");
            (void)test.Hear();
            return 0;
        });
        ASSERT_EQ(child.Hear(), "ready");
        const auto users = UsersOf(name.LockPath());
        ASSERT_EQ(users.size(), 1U);
        ASSERT_EQ(users[0].descriptors.size(), 2U) << "the test's own is inherited";
        EXPECT_EQ(users[0].descriptors[1].lock, expected);
    }
}

TEST(UserText, IsANameWhereThereIsOne) {
    EXPECT_EQ(UserText(uid_t{0}), "root");
    EXPECT_EQ(GroupText(gid_t{0}), "root");
    EXPECT_EQ(UserText(uid_t{3999999999}), "3999999999");
    EXPECT_EQ(GroupText(gid_t{3999999999}), "3999999999");
}

}  // namespace
}  // namespace qel::test
