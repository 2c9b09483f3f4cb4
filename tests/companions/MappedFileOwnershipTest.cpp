#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>

#include "MappedFileFixture.h"

namespace qel::test {
namespace {

static_assert(!std::is_copy_constructible_v<MappedFile>);
static_assert(!std::is_copy_assignable_v<MappedFile>);
static_assert(std::is_nothrow_move_constructible_v<MappedFile>);
static_assert(std::is_nothrow_move_assignable_v<MappedFile>);

TEST_F(AMappedFile, HoldsNothingByDefault) {
    const MappedFile file;

    EXPECT_EQ(file.Descriptor().Get(), -1);
    EXPECT_EQ(file.Data(), nullptr);
    EXPECT_EQ(file.Length(), 0U);
    EXPECT_EQ(file.Path(), "");
}

TEST_F(AMappedFile, ReleasesAllItHoldsAtTheEnd) {
    WriteFile(path_, "hello");
    {
        const MappedFile file(path_, false);
        EXPECT_EQ(HoldingsOf(path_), (Holdings{1, 1}));
    }
    EXPECT_TRUE(NothingHeld());
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

}  // namespace
}  // namespace qel::test
