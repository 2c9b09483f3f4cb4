#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include "RingError.h"
#include "RingObject.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 100000;

std::optional<struct stat> Look(const UniqueRingName& name) {
    struct stat status {};
    if (stat(name.Path().c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

void PutFile(const UniqueRingName& name, const std::string& text) {
    std::ofstream(name.Path()) << text;
}

std::string ContentOf(const UniqueRingName& name) {
    std::ifstream file(name.Path());
    return {std::istreambuf_iterator<char>(file), {}};
}

template <typename Action>
int ErrnoOf(const Action& action) {
    try {
        action();
    } catch (const RingError& failure) {
        return failure.Errno();
    }
    return 0;
}

TEST(RingObject, HasTheSegmentsLengthWithAllMemoryReserved) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kSize);
    const auto status = Look(name);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->st_size, static_cast<off_t>(kSize + 152));
    EXPECT_GE(status->st_blocks * 512, status->st_size);
    EXPECT_EQ(RingObject::FindSize(name.Name()), kSize);
}

TEST(RingObject, IsRemovedWithItsMaker) {
    const UniqueRingName name;
    { const RingObject object(name.Name(), kSize); }
    EXPECT_FALSE(Look(name));
    EXPECT_EQ(RingObject::FindSize(name.Name()), std::nullopt);
}

TEST(RingObject, IsRemovedOnlyOnce) {
    const UniqueRingName name;
    {
        RingObject object(name.Name(), kSize);
        object.Remove();
        EXPECT_FALSE(Look(name));
        PutFile(name, "another's");
    }
    EXPECT_EQ(ContentOf(name), "another's");
}

TEST(RingObject, RefusesANameThatIsTakenAndLeavesItAlone) {
    const UniqueRingName name;
    PutFile(name, "another's");
    try {
        const RingObject object(name.Name(), kSize);
        FAIL() << "took it over";
    } catch (const RingError& failure) {
        EXPECT_EQ(failure.Errno(), EEXIST);
        EXPECT_EQ(std::string(failure.what()), "ring " + name.Name() + ": cannot create " +
                                                   name.ObjectName() + ": 17(File exists)");
    }
    EXPECT_EQ(ContentOf(name), "another's");
}

TEST(RingObject, LeavesAnObjectAloneThatSomebodyElseHasPutUnderTheName) {
    const UniqueRingName name;
    {
        const RingObject object(name.Name(), kSize);
        RingObject::Unlink(name.Name());
        PutFile(name, "another's");
    }
    EXPECT_EQ(ContentOf(name), "another's");
}

TEST(RingObject, CopyInAForkedChildDoesNotRemoveIt) {
    const UniqueRingName name;
    auto object = std::make_unique<RingObject>(name.Name(), kSize);
    const pid_t child = fork();
    if (child == 0) {
        object.reset();
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(Look(name));
}

TEST(RingObject, LargerThanTheFileSystemIsAnErrorAndLeavesNothing) {
    struct statvfs room {};
    ASSERT_EQ(statvfs("/dev/shm", &room), 0);
    if (room.f_blocks == 0) {
        GTEST_SKIP() << "/dev/shm has no limit here";
    }
    const UniqueRingName name;
    const std::uint64_t tooMuch = (room.f_blocks + 1) * room.f_frsize;
    EXPECT_EQ(ErrnoOf([&] { const RingObject object(name.Name(), tooMuch); }), ENOSPC);
    EXPECT_FALSE(Look(name));
}

TEST(RingObject, TakesTheLongestNameThatTheRulesAllow) {
    const UniqueRingName unique;
    const std::string name = unique.Name() + std::string(251 - unique.Name().size(), 'n');
    const RingObject object(name, kSize);
    EXPECT_EQ(RingObject::FindSize(name), kSize);
}

TEST(RingObject, ChecksNameAndSizeBeforeAnythingIsMade) {
    const UniqueRingName name;
    EXPECT_THROW(RingObject("a/b", kSize), std::invalid_argument);
    EXPECT_THROW(RingObject(name.Name(), 0), std::invalid_argument);
    EXPECT_FALSE(Look(name));
    EXPECT_THROW((void)RingObject::FindSize(""), std::invalid_argument);
    EXPECT_THROW(RingObject::Unlink("a/b"), std::invalid_argument);
}

TEST(RingObject, SizeOfAFileShorterThanAControlBlockIsZero) {
    const UniqueRingName name;
    PutFile(name, "short");
    EXPECT_EQ(RingObject::FindSize(name.Name()), 0U);
}

TEST(RingObject, UnlinkOfAMissingObjectSaysSo) {
    const UniqueRingName name;
    EXPECT_EQ(ErrnoOf([&] { RingObject::Unlink(name.Name()); }), ENOENT);
}

}  // namespace
}  // namespace qel::test
