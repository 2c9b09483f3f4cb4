#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Command.h"
#include "Reserve.h"
#include "RingError.h"
#include "Thrown.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

/// Large enough for its memory to be taken in several parts.
constexpr std::uint64_t kSize = 40U << 20U;

class ReserveTest : public testing::Test {
protected:
    [[nodiscard]] Reservation Wanted() const {
        Reservation wanted;
        wanted.name = name_.Name();
        wanted.size = kSize;
        return wanted;
    }

    UniqueRingName name_;
};

TEST_F(ReserveTest, ObjectHasNoNameBeforeItIsComplete) {
    int looks = 0;
    const auto made = Reserve(Wanted(), [&] {
        ++looks;
        EXPECT_FALSE(Exists(name_.Path()));
        return false;
    });
    EXPECT_TRUE(made.has_value());
    EXPECT_GT(looks, 2);
    EXPECT_TRUE(Exists(name_.Path()));
}

TEST_F(ReserveTest, NothingIsMadeOnceItIsStopped) {
    for (int last = 1; last <= 3; ++last) {
        int looks = 0;
        EXPECT_FALSE(Reserve(Wanted(), [&] { return ++looks == last; }).has_value());
        EXPECT_EQ(looks, last);
        EXPECT_FALSE(Exists(name_.Path()));
    }
}

TEST_F(ReserveTest, RingThatComesMeanwhileIsNotTouched) {
    const auto reserve = [&] {
        (void)Reserve(Wanted(), [&] {
            WriteFile(name_.Path(), "another's");
            return false;
        });
    };
    EXPECT_EQ(Thrown<RingError>(reserve),
              "ring " + name_.Name() + ": cannot create " + name_.Path() + ": 17(File exists)");
    EXPECT_EQ(ReadFile(name_.Path()), "another's");
}

}  // namespace
}  // namespace qel::test
