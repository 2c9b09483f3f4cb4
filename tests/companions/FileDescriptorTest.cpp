#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "FileDescriptor.h"

namespace qel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<FileDescriptor>);
static_assert(!std::is_copy_assignable_v<FileDescriptor>);
static_assert(std::is_nothrow_move_constructible_v<FileDescriptor>);
static_assert(std::is_nothrow_move_assignable_v<FileDescriptor>);
static_assert(!std::is_convertible_v<int, FileDescriptor>);

constexpr int kNeverOpen = 1 << 20;  // above the limit of every process

int OpenNull() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpenInSystem(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

/// Notes what it is asked to close instead of closing it.
FileDescriptor::Closer Noting(std::vector<int>& closed) {
    return std::make_unique<UniqueFunction<void(int)>>(
        [&closed](int descriptor) { closed.push_back(descriptor); });
}

TEST(AFileDescriptor, OwnsNothingByDefault) {
    const FileDescriptor descriptor;

    EXPECT_EQ(descriptor.Get(), -1);
    EXPECT_FALSE(descriptor.IsOpen());
}

TEST(AFileDescriptor, ClosesWhatItOwnsAtTheEnd) {
    const int number = OpenNull();
    {
        const FileDescriptor descriptor(number);
        EXPECT_EQ(descriptor.Get(), number);
        EXPECT_TRUE(descriptor.IsOpen());
        EXPECT_TRUE(IsOpenInSystem(number));
    }
    EXPECT_FALSE(IsOpenInSystem(number));
}

TEST(AFileDescriptor, TakesZeroForADescriptorLikeAnyOther) {
    std::vector<int> closed;
    {
        const FileDescriptor descriptor(0, Noting(closed));
        EXPECT_TRUE(descriptor.IsOpen());
    }
    EXPECT_THAT(closed, ElementsAre(0));
}

TEST(AFileDescriptor, HandsTheDescriptorToItsCloserOnceInPlaceOfClosingIt) {
    std::vector<int> closed;
    const int number = OpenNull();
    { const FileDescriptor descriptor(number, Noting(closed)); }
    EXPECT_THAT(closed, ElementsAre(number));
    EXPECT_TRUE(IsOpenInSystem(number));
    ::close(number);
}

TEST(AFileDescriptor, ClosesItselfWhenItsCloserHasNothingToCall) {
    using Closing = UniqueFunction<void(int)>;
    FileDescriptor::Closer closers[] = {
        std::make_unique<Closing>(), std::make_unique<Closing>(static_cast<void (*)(int)>(nullptr)),
        std::make_unique<Closing>(static_cast<int (*)(int)>(nullptr)),
        std::make_unique<Closing>(std::function<void(int)>()),
        std::make_unique<Closing>(UniqueFunction<int(int)>())};
    for (FileDescriptor::Closer& closer : closers) {
        const int number = OpenNull();
        { const FileDescriptor descriptor(number, std::move(closer)); }
        EXPECT_FALSE(IsOpenInSystem(number));
    }
}

TEST(AFileDescriptor, DoesNotCallTheCloserWithoutADescriptor) {
    std::vector<int> closed;
    { const FileDescriptor descriptor(-1, Noting(closed)); }
    EXPECT_THAT(closed, IsEmpty());
}

TEST(AFileDescriptor, SwallowsWhatItsCloserThrows) {
    const auto destroy = [] {
        const FileDescriptor descriptor(
            3, std::make_unique<UniqueFunction<void(int)>>([](int /*descriptor*/) {
                errno = EIO;
                throw std::runtime_error("no");
            }));
        errno = EACCES;
    };

    EXPECT_NO_THROW(destroy());
    EXPECT_EQ(errno, EACCES);
}

TEST(AFileDescriptor, KeepsErrnoOverAFailedClose) {
    {
        const FileDescriptor descriptor(kNeverOpen);
        errno = EACCES;
    }
    EXPECT_EQ(errno, EACCES);
}

TEST(AFileDescriptor, GivesItsDescriptorAndCloserAwayWhenMovedFrom) {
    std::vector<int> closed;
    {
        FileDescriptor from(70, Noting(closed));
        const FileDescriptor to(std::move(from));

        EXPECT_EQ(to.Get(), 70);
        // Its state is what is tested.
        // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
        EXPECT_EQ(from.Get(), -1);
        EXPECT_FALSE(from.IsOpen());
    }
    EXPECT_THAT(closed, ElementsAre(70));
}

TEST(AFileDescriptor, ClosesWhatItHeldWithItsOwnCloserBeforeItTakesOver) {
    std::vector<int> closedByFirst;
    std::vector<int> closedBySecond;
    {
        FileDescriptor descriptor(70, Noting(closedByFirst));
        FileDescriptor from(71, Noting(closedBySecond));
        descriptor = std::move(from);

        EXPECT_EQ(from.Get(), -1);  // NOLINT(bugprone-use-after-move): left in this state
        EXPECT_THAT(closedByFirst, ElementsAre(70));
        EXPECT_THAT(closedBySecond, IsEmpty());
        EXPECT_EQ(descriptor.Get(), 71);
    }
    EXPECT_THAT(closedByFirst, ElementsAre(70));
    EXPECT_THAT(closedBySecond, ElementsAre(71));
}

TEST(AFileDescriptor, DropsItsCloserWithItsDescriptor) {
    std::vector<int> closed;
    const int number = OpenNull();
    {
        FileDescriptor descriptor(70, Noting(closed));
        descriptor = FileDescriptor(number);
    }
    EXPECT_THAT(closed, ElementsAre(70));
    EXPECT_FALSE(IsOpenInSystem(number));
}

TEST(AFileDescriptor, StaysAsItIsWhenMovedToItself) {
    std::vector<int> closed;
    {
        FileDescriptor descriptor(70, Noting(closed));
        FileDescriptor& same = descriptor;
        descriptor = std::move(same);

        EXPECT_EQ(descriptor.Get(), 70);
        EXPECT_THAT(closed, IsEmpty());
    }
    EXPECT_THAT(closed, ElementsAre(70));
}

}  // namespace
}  // namespace qel
