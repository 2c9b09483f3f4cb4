#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "MappedFileFixture.h"

namespace qel::test {
namespace {

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

}  // namespace
}  // namespace qel::test
