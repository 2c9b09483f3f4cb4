// The random identifier of a block, drawn from numbers that are known. The standard library's
// random device is replaced when this program is linked.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "BlockFixture.h"

namespace qel::test {
namespace {

/// What the replaced device was asked for, and gives out: `numbers` again and again.
struct Device {
    std::vector<std::string> tokens;
    std::vector<unsigned> numbers;
    std::size_t drawn = 0;

    unsigned Draw() { return numbers[drawn++ % numbers.size()]; }
};

Device device;

}  // namespace
}  // namespace qel::test

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void std::random_device::_M_init(const std::string& token) {
    qel::test::device.tokens.push_back(token);
}
void std::random_device::_M_fini() {}
std::random_device::result_type std::random_device::_M_getval() {
    return qel::test::device.Draw();
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace qel::test {
namespace {

constexpr std::int64_t kSmallest = 2305843009213693952;
constexpr std::int64_t kGreatest = 4611686018427387904;
constexpr unsigned kMost = std::numeric_limits<unsigned>::max();

/// A source of the device's numbers.
struct Source {
    using result_type = unsigned;
    static constexpr unsigned min() { return 0; }
    static constexpr unsigned max() { return kMost; }
    unsigned operator()() { return device.Draw(); }
};

class BlockUid : public BlockTest {
protected:
    /// Lets the device give out `numbers` from the first on.
    static void Give(const std::vector<unsigned>& numbers) { device = {{}, numbers, 0}; }
    /// The uid of a block that is made next.
    [[nodiscard]] std::int64_t Uid() const {
        const auto block = Creator();
        return Record().uid;
    }
};

TEST_F(BlockUid, IsDrawnFromTheDefaultDeviceOnce) {
    Give({7, 1, 0});

    (void)Uid();

    EXPECT_EQ(device.tokens, std::vector<std::string>{"default"});
}

TEST_F(BlockUid, IsEvenlySpreadOverTheRangeAfterADiscardedDraw) {
    std::mt19937 random(20240301);
    for (int i = 0; i < 100; ++i) {
        std::vector<unsigned> numbers(10);
        for (unsigned& number : numbers) {
            number = static_cast<unsigned>(random());
        }
        Give(numbers);
        Source source;
        (void)source();
        const std::int64_t expected =
            std::uniform_int_distribution<long>(kSmallest, kGreatest)(source);
        const std::size_t draws = device.drawn;
        Give(numbers);

        EXPECT_EQ(Uid(), expected);
        EXPECT_EQ(device.drawn, draws);
    }
}

// Of the two numbers, the distribution takes the upper 30 bits from the first and adds the second.
TEST_F(BlockUid, CanBeTheSmallestAndTheGreatestOfTheRange) {
    Give({7, 1, 0});
    EXPECT_EQ(Uid(), kSmallest);
    EXPECT_EQ(device.drawn, 3U);

    Give({7, kMost, 0});
    EXPECT_EQ(Uid(), kGreatest);
    EXPECT_EQ(device.drawn, 3U);
}

TEST_F(BlockUid, IsNotDrawnForABlockThatIsThere) {
    Give({7, 1, 0});
    const auto creator = Creator();
    Give({7, 1, 0});

    (void)Creator();
    (void)Opener();

    EXPECT_EQ(device.drawn, 0U);
}

}  // namespace
}  // namespace qel::test
