#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "ChildProcess.h"
#include "MappedFileFixture.h"

namespace qel::test {
namespace {

TEST_F(AMappedFile, GrowsFromEmptyWithZeros) {
    MappedFile file(path_, true);

    ASSERT_TRUE(file.TruncateTo(40));

    EXPECT_EQ(Text(file), std::string(40, '\0'));
    EXPECT_EQ(ReadFile(path_), std::string(40, '\0'));
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
}

TEST_F(AMappedFile, GrowsAndKeepsItsContent) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);

    ASSERT_TRUE(file.TruncateTo(10000));

    EXPECT_EQ(Text(file), "hello" + std::string(9995, '\0'));
    file.Data()[9999] = 'x';
    EXPECT_EQ(ReadFile(path_), "hello" + std::string(9994, '\0') + "x");
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
}

TEST_F(AMappedFile, TakesRoomOnTheDiskForWhatItGrowsBy) {
    MappedFile file(path_, true);

    ASSERT_TRUE(file.TruncateTo(65536));

    struct stat status {};
    ASSERT_EQ(::fstat(file.Descriptor().Get(), &status), 0);
    EXPECT_GE(status.st_blocks * 512, 65536);
}

TEST_F(AMappedFile, ShrinksAndKeepsTheBeginning) {
    WriteFile(path_, std::string(9000, 'a') + "b");
    MappedFile file(path_, false);

    ASSERT_TRUE(file.TruncateTo(3));

    EXPECT_EQ(Text(file), "aaa");
    EXPECT_EQ(ReadFile(path_), "aaa");
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
}

TEST_F(AMappedFile, ShrinksToNothingAndStaysOpen) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);

    ASSERT_TRUE(file.TruncateTo(0));

    EXPECT_TRUE(file.Descriptor().IsOpen());
    EXPECT_EQ(file.Data(), nullptr);
    EXPECT_EQ(file.Length(), 0U);
    EXPECT_EQ(ReadFile(path_), "");
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 0}));
}

TEST_F(AMappedFile, OfNoLengthCanBeGivenNoLength) {
    MappedFile file(path_, true);

    EXPECT_TRUE(file.TruncateTo(0));
    EXPECT_EQ(file.Data(), nullptr);
}

TEST_F(AMappedFile, KeepsItsContentWhenGivenTheLengthItHas) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);

    ASSERT_TRUE(file.TruncateTo(5));

    EXPECT_EQ(Text(file), "hello");
}

TEST_F(AMappedFile, CutsOffWhatAnotherHasAddedBehindItsMapping) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);
    WriteFile(path_, "hello and more");

    ASSERT_TRUE(file.TruncateTo(7));

    EXPECT_EQ(Text(file), "hello a");
    EXPECT_EQ(ReadFile(path_), "hello a");
}

TEST_F(AMappedFile, CannotBeResizedWhenItIsNotOpen) {
    MappedFile file;

    errno = 0;
    EXPECT_FALSE(file.TruncateTo(5));
    EXPECT_EQ(errno, EBADF);
}

TEST_F(AMappedFile, RefusesALengthThatNoFileCanHave) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);

    errno = 0;
    EXPECT_FALSE(file.TruncateTo(std::uint64_t{1} << 63U));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(Text(file), "hello");
    EXPECT_EQ(ReadFile(path_), "hello");
}

TEST_F(AMappedFile, RefusesTheGreatestLengthAndStaysAsItWas) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);

    errno = 0;
    EXPECT_FALSE(file.TruncateTo(static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())));
    EXPECT_THAT(errno, ::testing::AnyOf(EFBIG, ENOSPC));
    EXPECT_EQ(Text(file), "hello");
    EXPECT_EQ(ReadFile(path_), "hello");
}

/// Gives this process a view of the file tree of its own, with a disk of 64 KiB at `path`.
bool MountSmallDisk(const std::string& path) {
    const std::string map = "0 " + std::to_string(::getuid()) + " 1";
    if (::unshare(CLONE_NEWNS) == -1) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) == -1) {
            return false;
        }
        WriteFile("/proc/self/uid_map", map);
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k") == 0;
}

TEST_F(AMappedFile, CannotGrowOnAFullDiskAndStaysAsItWas) {
    ChildProcess child([this](const Conversation& parent) {
        if (!MountSmallDisk(directory_.Path())) {
            parent.Say("no disk");
            return 0;
        }
        MappedFile file(path_, true);
        if (!file.TruncateTo(8192)) {
            parent.Say("no room for the first pages");
            return 1;
        }
        std::memset(file.Data(), 'a', 8192);
        const unsigned char* const data = file.Data();
        errno = 0;
        const bool grown = file.TruncateTo(1U << 20U);
        const int error = errno;
        parent.Say(std::string(grown ? "grown" : "not grown") + ", " + std::strerror(error) + ", " +
                   (file.Data() == data ? "same" : "another") + " mapping of " +
                   std::to_string(file.Length()) + ", content " +
                   (Text(file) == std::string(8192, 'a') ? "kept" : "lost"));
        return 0;
    });
    const std::string seen = child.Hear();
    EXPECT_EQ(child.ExitCode(), 0);
    if (seen == "no disk") {
        GTEST_SKIP() << "this process may not mount a small disk";
    }
    EXPECT_EQ(seen, "not grown, No space left on device, same mapping of 8192, content kept");
}

}  // namespace
}  // namespace qel::test
