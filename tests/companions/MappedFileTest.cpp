#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include "ChildProcess.h"
#include "Files.h"
#include "MappedFile.h"
#include "ProcessState.h"
#include "TemporaryDirectory.h"

namespace qel {
namespace {

using test::ChildProcess;
using test::Conversation;
using test::Holdings;
using test::HoldingsOf;
using test::ReadFile;
using test::TemporaryDirectory;
using test::WriteFile;

static_assert(!std::is_copy_constructible_v<MappedFile>);
static_assert(!std::is_copy_assignable_v<MappedFile>);
static_assert(std::is_nothrow_move_constructible_v<MappedFile>);
static_assert(std::is_nothrow_move_assignable_v<MappedFile>);

/// What a refused file says: the text, and the reason in the exception and in `errno`.
std::string Refusal(const std::string& path, bool create) {
    errno = 0;
    try {
        const MappedFile file(path, create);
    } catch (const std::system_error& error) {
        if (error.code() != std::error_code(errno, std::generic_category())) {
            return "errno and the exception differ";
        }
        return error.what();
    }
    return "accepted";
}

std::string Text(const MappedFile& file) {
    return {reinterpret_cast<const char*>(file.Data()), file.Length()};
}

class AMappedFile : public ::testing::Test {
protected:
    /// No descriptor, no mapping of anything in the directory.
    [[nodiscard]] bool NothingHeld() const { return HoldingsOf(directory_.Path()) == Holdings{}; }

    TemporaryDirectory directory_;
    std::string path_ = directory_.Path("file");
};

TEST_F(AMappedFile, HoldsNothingByDefault) {
    const MappedFile file;

    EXPECT_EQ(file.Descriptor().Get(), -1);
    EXPECT_EQ(file.Data(), nullptr);
    EXPECT_EQ(file.Length(), 0U);
    EXPECT_EQ(file.Path(), "");
}

TEST_F(AMappedFile, IsOpenedMappedWholeAndSharedWithTheDisk) {
    WriteFile(path_, "hello");

    MappedFile file(path_, false);

    EXPECT_TRUE(file.Descriptor().IsOpen());
    EXPECT_EQ(file.Path(), path_);
    EXPECT_EQ(Text(file), "hello");
    file.Data()[0] = 'j';
    EXPECT_EQ(ReadFile(path_), "jello");
}

TEST_F(AMappedFile, IsClosedInAProgramThatThisOneBecomes) {
    const MappedFile file(path_, true);

    EXPECT_EQ(::fcntl(file.Descriptor().Get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(file.Descriptor().Get(), F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(AMappedFile, ReleasesAllItHoldsAtTheEnd) {
    WriteFile(path_, "hello");
    {
        const MappedFile file(path_, false);
        EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
    }
    EXPECT_TRUE(NothingHeld());
}

TEST_F(AMappedFile, IsCreatedEmptyWhenMissingAndThenIsNotMapped) {
    const mode_t mask = ::umask(022);
    const MappedFile file(path_, true);
    ::umask(mask);

    EXPECT_TRUE(file.Descriptor().IsOpen());
    EXPECT_EQ(file.Data(), nullptr);
    EXPECT_EQ(file.Length(), 0U);
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 0}));
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST_F(AMappedFile, KeepsItsContentWhenOpenedForCreation) {
    WriteFile(path_, "hello");

    EXPECT_EQ(Text(MappedFile(path_, true)), "hello");
}

TEST_F(AMappedFile, IsRefusedWhenMissingAndNotToBeCreated) {
    EXPECT_EQ(Refusal(path_, false),
              "MappedFile: could not open " + path_ + ": No such file or directory");
    EXPECT_NE(::access(path_.c_str(), F_OK), 0) << "the refusal has made the file";
}

TEST_F(AMappedFile, IsRefusedWhenItsDirectoryIsMissing) {
    const std::string path = directory_.Path("missing/file");

    EXPECT_EQ(Refusal(path, true),
              "MappedFile: could not open " + path + ": No such file or directory");
}

TEST_F(AMappedFile, IsRefusedWhenItsPathIsEmpty) {
    EXPECT_EQ(Refusal("", true), "MappedFile: could not open : No such file or directory");
}

TEST_F(AMappedFile, IsRefusedWhenItsNameIsTooLong) {
    const std::string path = directory_.Path(std::string(300, 'x'));

    EXPECT_EQ(Refusal(path, true), "MappedFile: could not open " + path + ": File name too long");
}

TEST_F(AMappedFile, IsRefusedWhenItIsADirectory) {
    EXPECT_EQ(Refusal(directory_.Path(), false),
              "MappedFile: could not open " + directory_.Path() + ": Is a directory");
    EXPECT_TRUE(NothingHeld());
}

TEST_F(AMappedFile, IsRefusedWhenItIsASymbolicLinkToAFile) {
    WriteFile(directory_.Path("target"), "hello");
    ASSERT_EQ(::symlink("target", path_.c_str()), 0);

    EXPECT_EQ(Refusal(path_, true),
              "MappedFile: could not open " + path_ + ": Too many levels of symbolic links");
}

TEST_F(AMappedFile, IsNotCreatedThroughASymbolicLink) {
    ASSERT_EQ(::symlink("target", path_.c_str()), 0);

    EXPECT_EQ(Refusal(path_, true),
              "MappedFile: could not open " + path_ + ": Too many levels of symbolic links");
    EXPECT_NE(::access(directory_.Path("target").c_str(), F_OK), 0);
}

TEST_F(AMappedFile, IsRefusedWhenItIsAPipe) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);

    EXPECT_EQ(Refusal(path_, false),
              "MappedFile: could not use as a regular file " + path_ + ": Invalid argument");
    EXPECT_TRUE(NothingHeld());
}

TEST_F(AMappedFile, IsRefusedWhenItIsADevice) {
    const Holdings before = HoldingsOf("/dev/null");

    EXPECT_EQ(Refusal("/dev/null", true),
              "MappedFile: could not use as a regular file /dev/null: Invalid argument");
    EXPECT_EQ(HoldingsOf("/dev/null"), before);
}

TEST_F(AMappedFile, IsRefusedWithoutPermission) {
    WriteFile(path_, "secret");
    ASSERT_EQ(::chmod(path_.c_str(), 0400), 0);
    ChildProcess other([this](const Conversation& parent) {
        if (::getuid() == 0 && ::setuid(65534) == -1) {
            return 1;
        }
        parent.Say(Refusal(path_, false));
        return 0;
    });

    EXPECT_EQ(other.Hear(), "MappedFile: could not open " + path_ + ": Permission denied");
    EXPECT_EQ(other.ExitCode(), 0);
}

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

TEST_F(AMappedFile, LetsGoOfAllButItsPathWhenClosed) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);

    file.Close();

    EXPECT_FALSE(file.Descriptor().IsOpen());
    EXPECT_EQ(file.Data(), nullptr);
    EXPECT_EQ(file.Length(), 0U);
    EXPECT_EQ(file.Path(), path_);
    EXPECT_TRUE(NothingHeld());
    errno = 0;
    EXPECT_FALSE(file.TruncateTo(1));
    EXPECT_EQ(errno, EBADF);
    file.Close();  // a second time does nothing
    EXPECT_EQ(file.Path(), path_);
}

TEST_F(AMappedFile, IsAsDefaultConstructedAfterItHasBeenMovedFrom) {
    WriteFile(path_, "hello");
    MappedFile from(path_, false);

    const MappedFile to(std::move(from));

    // Its state is what is tested.
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    EXPECT_FALSE(from.Descriptor().IsOpen());
    EXPECT_EQ(from.Data(), nullptr);
    EXPECT_EQ(from.Length(), 0U);
    EXPECT_EQ(from.Path(), "");
    EXPECT_EQ(Text(to), "hello");
    EXPECT_EQ(to.Path(), path_);
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
}

TEST_F(AMappedFile, ReleasesWhatItHeldWhenAnotherIsMovedIn) {
    const std::string second = directory_.Path("second");
    WriteFile(path_, "hello");
    WriteFile(second, "world");
    MappedFile file(path_, false);
    MappedFile from(second, false);

    file = std::move(from);

    EXPECT_EQ(HoldingsOf(path_), Holdings{});
    EXPECT_EQ(HoldingsOf(second), (Holdings{1, 1}));
    EXPECT_EQ(Text(file), "world");
    EXPECT_EQ(file.Path(), second);
    // Its state is what is tested.
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    EXPECT_FALSE(from.Descriptor().IsOpen());
    EXPECT_EQ(from.Data(), nullptr);
    EXPECT_EQ(from.Length(), 0U);
    EXPECT_EQ(from.Path(), "");
}

TEST_F(AMappedFile, StaysAsItIsWhenMovedToItself) {
    WriteFile(path_, "hello");
    MappedFile file(path_, false);
    MappedFile& same = file;

    file = std::move(same);

    EXPECT_EQ(Text(file), "hello");
    EXPECT_EQ(file.Path(), path_);
    EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
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
}  // namespace qel
