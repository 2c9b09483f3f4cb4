#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <tuple>

#include "LeftRing.h"
#include "RingError.h"
#include "Thrown.h"

namespace qel::test {
namespace {

/// A length that is written over that of a record which was left behind.
struct Damage {
    const char* name;
    std::uint64_t record;  ///< its place
    std::uint64_t length;
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class DamagedLeftovers : public testing::TestWithParam<std::tuple<std::uint8_t, Damage>> {};

TEST_P(DamagedLeftovers, AreRefusedAndNotHandedOn) {
    const auto& [sink, damage] = GetParam();
    LeftRing ring(10000, sink, 10);
    ring.Write({74, 24, 174, 74});  // at 0, 100, 150, 350 to 450
    ring.LeaveBehind(1, 4, 1);
    std::memcpy(ring.Data() + damage.record, &damage.length, sizeof damage.length);
    const auto before = ring.Avail();
    EXPECT_EQ(ring.HandOnText(1), "ring " + ring.Name() + ": what node 1 left behind is damaged");
    EXPECT_EQ(ring.Avail(), before);
    EXPECT_EQ(ring.Open(1)->GetCurrentCapacity().numPackets, 3U + (sink == 1 ? 0U : 1U));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DamagedLeftovers,
    testing::Combine(testing::Values(std::uint8_t{1}, std::uint8_t{2}),
                     testing::Values(Damage{"FirstByteTooLong", 100, 25},
                                     Damage{"LastTooLong", 350, 75},
                                     Damage{"LastTooShort", 350, 73},
                                     Damage{"LessThanAHeaderBehindTheLast", 350, 49},
                                     Damage{"BeyondTheRing", 150, 10000},
                                     Damage{"SumOverflows", 150, ~std::uint64_t{0} - 25},
                                     Damage{"Highest", 150, ~std::uint64_t{0}})),
    [](const auto& damaged) {
        return std::string(std::get<1>(damaged.param).name) +
               (std::get<0>(damaged.param) == 1 ? "InTheSink" : "");
    });

TEST(HandOnLeftovers, BytesTooFewForAHeaderAreNotTakenForARecord) {
    LeftRing ring(10000, 2);
    ring.Write({74, 74});
    ring.LeaveBehind(1, 2, 0);
    const std::uint64_t length = 49;  // of the second record, which leaves 25 bytes
    const std::uint64_t minusOne = ~std::uint64_t{0};  // with its header, just these
    std::memcpy(ring.Data() + 100, &length, sizeof length);
    std::memcpy(ring.Data() + 175, &minusOne, sizeof minusOne);
    EXPECT_EQ(ring.HandOnText(1), "ring " + ring.Name() + ": what node 1 left behind is damaged");
}

TEST(HandOnLeftovers, CountersThatContradictEachOtherAreRefused) {
    LeftRing ring(10000, 2);
    ring.Write({100, 20});
    ring.LeaveBehind(1, 2, 0);
    for (const std::uint64_t counter :
         {std::uint64_t{9999}, std::uint64_t{10000}, ~std::uint64_t{0}}) {
        ring.Control().avail[2] = counter;
        const auto before = ring.Avail();
        EXPECT_EQ(ring.HandOnText(1),
                  "ring " + ring.Name() + ": what node 1 left behind is damaged");
        EXPECT_EQ(ring.Avail(), before);
    }
}

TEST(HandOnLeftovers, NodeThatWritesIsRefused) {
    const LeftRing ring(10000, 1);
    EXPECT_EQ(Thrown<std::invalid_argument>([&] { (void)ring.HandOn(0); }),
              "node 0 writes and leaves nothing read behind");
}

TEST(HandOnLeftovers, DescriptionThatIsNotTheRingsIsRefused) {
    const LeftRing ring(10000, 1);
    const auto buffer = ring.Open(1);
    const auto refusal = [&](const SharedBufferIF::BufferInfo& info) {
        return Thrown<std::invalid_argument>([&] { (void)HandOnLeftovers(*buffer, info); });
    };
    auto info = ring.Info(1);
    info.shmSize = 9999;
    EXPECT_EQ(refusal(info), "ring " + ring.Name() + " does not have the size 9999");
    info = ring.Info(4);
    EXPECT_EQ(refusal(info), "node 4 is the last and must be the sink");
    info.nodeIdx = 5;
    EXPECT_EQ(refusal(info), "node 5 is not in 0 to 4");
}

TEST(HandOnLeftovers, ObjectThatIsGoneIsAnErrorWithItsErrno) {
    const LeftRing ring(10000, 1);
    const auto buffer = ring.Open(1);
    ASSERT_EQ(::shm_unlink(ring.Object().ObjectName().c_str()), 0);
    try {
        (void)HandOnLeftovers(*buffer, ring.Info(1));
        FAIL() << "found what is gone";
    } catch (const RingError& failure) {
        EXPECT_EQ(failure.Errno(), ENOENT);
    }
}

}  // namespace
}  // namespace qel::test
