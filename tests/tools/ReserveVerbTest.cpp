#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Command.h"
#include "OpenRing.h"
#include "RingRules.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 100000;

/// The commands that the test starts have it too.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}
    ~Umask() { (void)umask(before_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t before_;
};

class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
        Set({bytes, before_.rlim_max});
    }
    ~FileSizeLimit() { Set(before_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    static void Set(const rlimit& limit) { EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0); }
    rlimit before_{};
};

class ReserveVerb : public testing::Test {
protected:
    [[nodiscard]] CommandResult Run(const std::vector<std::string>& options,
                                    const Streams& streams = {}) const {
        std::vector<std::string> all{"reserve", name_.Name(), "--size", std::to_string(kSize)};
        all.insert(all.end(), options.begin(), options.end());
        return RunQev(all, streams);
    }

    [[nodiscard]] struct stat Status() const {
        struct stat status {};
        EXPECT_EQ(stat(name_.Path().c_str(), &status), 0);
        return status;
    }

    void ExpectMade(const CommandResult& result, const std::string& rest) const {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.out, "ring " + name_.Name() + ": 100000 bytes reserved in " +
                                  name_.Path() + ", " + rest + "\n");
    }

    void ExpectFailure(const CommandResult& result, const std::string& line) const {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qev reserve: " + line + "\n");
    }

    [[nodiscard]] static std::string Owners(uid_t user, gid_t group) {
        return "user " + std::to_string(user) + ", group " + std::to_string(group);
    }

    UniqueRingName name_;
};

TEST_F(ReserveVerb, TakesAllMemoryAndLeavesTheRingFresh) {
    const Umask mask(027);
    ExpectMade(Run({}), "mode 0640, " + Owners(geteuid(), getegid()));
    const struct stat status = Status();
    EXPECT_EQ(static_cast<std::uint64_t>(status.st_size), kSize + kControlBlockSize);
    EXPECT_GE(status.st_blocks * 512, status.st_size) << "memory is missing";
    const std::string content = ReadFile(name_.Path());
    EXPECT_EQ(std::count(content.begin(), content.end(), '\0'), status.st_size);
}

TEST_F(ReserveVerb, WhoOpensTheRingFirstInitialisesIt) {
    (void)Run({});
    const auto ring = OpenRing({name_.Name(), kSize, 0, false, 4});
    EXPECT_EQ(ring->GetCurrentCapacity().maxPackets, 5U);
    EXPECT_EQ(ReadFile(name_.Path())[124], '\1');
}

TEST_F(ReserveVerb, ModeIsExactWhateverTheUmask) {
    const Umask mask(077);
    ExpectMade(Run({"--mode", "0666"}), "mode 0666, " + Owners(geteuid(), getegid()));
    EXPECT_EQ(Status().st_mode & 07777U, 0666U);
}

TEST_F(ReserveVerb, OwnerAndGroupMayBeNumbersOrNames) {
    const passwd* const user = getpwuid(geteuid());
    const std::string userName = user == nullptr ? std::to_string(geteuid()) : user->pw_name;
    const group* const itsGroup = getgrgid(getegid());
    const std::string groupName =
        itsGroup == nullptr ? std::to_string(getegid()) : itsGroup->gr_name;
    const std::string rest = "mode 0600, " + Owners(geteuid(), getegid());
    ExpectMade(Run({"--owner", userName, "--group", groupName, "--mode", "600"}), rest);
    EXPECT_EQ(unlink(name_.Path().c_str()), 0);
    ExpectMade(Run({"--owner", std::to_string(geteuid()), "--group", std::to_string(getegid()),
                    "--mode", "600"}),
               rest);
}

TEST_F(ReserveVerb, RootGivesItToOthers) {
    constexpr uid_t kUser = 12345;
    constexpr gid_t kGroup = 23456;
    if (geteuid() != 0 || chown(TemporaryFolder().Path().c_str(), kUser, kGroup) != 0) {
        GTEST_SKIP() << "only root gives files away, and only to users that its namespace has";
    }
    ExpectMade(Run({"--owner", "12345", "--group", "23456", "--mode", "0660"}),
               "mode 0660, " + Owners(kUser, kGroup));
    EXPECT_EQ(Status().st_uid, kUser);
    EXPECT_EQ(Status().st_gid, kGroup);
}

TEST_F(ReserveVerb, NothingIsLeftWhenItMayNotBeGivenAway) {
    ExpectFailure(Run({"--owner", "12345"}, {-1, -1, -1, true}),
                  "ring " + name_.Name() + ": cannot set owner and group of " + name_.Path() +
                      ": 1(Operation not permitted)");
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST_F(ReserveVerb, NothingIsLeftWhenMemoryIsRefused) {
    const FileSizeLimit limit(kSize);
    ExpectFailure(Run({}), "ring " + name_.Name() + ": cannot reserve 100152 bytes for " +
                               name_.Path() + ": 27(File too large)");
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST_F(ReserveVerb, SaysHowMuchIsFreeWhenThatIsTooLittle) {
    struct statvfs room {};
    ASSERT_EQ(statvfs("/dev/shm", &room), 0);
    if (room.f_blocks == 0) {
        GTEST_SKIP() << "/dev/shm has no limit here";
    }
    const std::string size = std::to_string(room.f_blocks * room.f_frsize);
    const CommandResult result = RunQev({"reserve", name_.Name(), "--size", size});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, testing::MatchesRegex("qev reserve: ring " + name_.Name() +
                                                  ": [0-9]+ bytes are wanted, /dev/shm has "
                                                  "[0-9]+ free\n"));
    EXPECT_THAT(result.err,
                testing::HasSubstr(std::to_string(room.f_blocks * room.f_frsize + 152) + " bytes"));
    EXPECT_FALSE(Exists(name_.Path()));
}

TEST_F(ReserveVerb, RingThatIsThereIsNamedAndNotTouched) {
    (void)OpenRing({name_.Name(), 5000, 0, false, 0});
    const std::string before = ReadFile(name_.Path());
    ExpectFailure(Run({}),
                  "ring " + name_.Name() + " is there already with 5000 bytes, initialised");
    EXPECT_TRUE(ReadFile(name_.Path()) == before);
}

TEST_F(ReserveVerb, ReservedRingIsNotReservedTwice) {
    (void)Run({});
    ExpectFailure(Run({}), "ring " + name_.Name() +
                               " is there already with 100000 bytes, not initialised yet");
}

TEST_F(ReserveVerb, WhatIsNoRingIsNotTouchedEither) {
    WriteFile(name_.Path(), "short");
    ExpectFailure(Run({}), name_.Path() + " is there already: 5 bytes, too short for a ring");
    EXPECT_EQ(ReadFile(name_.Path()), "short");
    ASSERT_EQ(unlink(name_.Path().c_str()), 0);
    ASSERT_EQ(mkfifo(name_.Path().c_str(), 0600), 0);
    ExpectFailure(Run({}), "cannot read " + name_.Path() + ": 22(Invalid argument)");
    ASSERT_EQ(unlink(name_.Path().c_str()), 0);
    ASSERT_EQ(symlink("nowhere", name_.Path().c_str()), 0);
    ExpectFailure(Run({}),
                  "cannot read " + name_.Path() + ": 40(Too many levels of symbolic links)");
}

}  // namespace
}  // namespace qel::test
