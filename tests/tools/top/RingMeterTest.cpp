#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "ForgedChain.h"
#include "RingFile.h"
#include "RingMeter.h"
#include "RingUnderTest.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kMiB = 1U << 20U;

struct SteadyRow {
    const char* name;
    ForgedChain chain;
    bool bytesAreExact;
    bool packetsAreExact;
    bool isTooFast = false;
};

class SteadyChain : public testing::TestWithParam<SteadyRow> {};

TEST_P(SteadyChain, IsMeasuredAsItIs) {
    constexpr double kSeconds = 3;
    const ForgedChain& chain = GetParam().chain;
    RingMeter meter = chain.Meter();
    const ForgedChain::Effort effort = chain.Feed(meter, 0, kSeconds);
    const RingFigures figures = meter.Figures(ForgedChain::At(kSeconds));
    EXPECT_LT(effort.sleeps, 250 * kSeconds);
    EXPECT_LT(effort.spun, 0.01 * kSeconds);

    EXPECT_TRUE(figures.isSound);
    EXPECT_EQ(figures.isTooFast, GetParam().isTooFast);
    EXPECT_EQ(figures.moves, chain.speed > 0);
    EXPECT_EQ(figures.sink, chain.sink);
    EXPECT_EQ(figures.bytesAreExact, GetParam().bytesAreExact);
    EXPECT_EQ(figures.packetsAreExact, GetParam().packetsAreExact);
    EXPECT_EQ(figures.byteTotalsAreExact, GetParam().bytesAreExact);
    EXPECT_EQ(figures.packetTotalsAreExact, GetParam().packetsAreExact);
    EXPECT_DOUBLE_EQ(figures.seconds, kSeconds);

    const auto bytes = static_cast<double>(chain.Written(kSeconds) - chain.Written(0));
    const auto record = static_cast<double>(chain.record);
    for (unsigned node = 0; node <= chain.sink; ++node) {
        const NodeFigures& told = figures.nodes.at(node);
        const double byteError = GetParam().bytesAreExact ? 0 : 0.02 * bytes;
        const double packetError = GetParam().packetsAreExact ? 0 : 0.02 * bytes / record + 1;
        EXPECT_NEAR(static_cast<double>(told.bytes), bytes, byteError) << node;
        EXPECT_NEAR(static_cast<double>(told.packets), bytes / record, packetError) << node;
        EXPECT_NEAR(told.bytesPerSecond * kSeconds, bytes, byteError + 1e-3) << node;
        EXPECT_NEAR(told.packetsPerSecond * kSeconds, bytes / record, packetError) << node;
        if (node > 0) {
            const auto inStage = static_cast<double>(chain.waiting + chain.held) * record;
            EXPECT_NEAR(told.waiting, static_cast<double>(chain.waiting) * record, 1e-3) << node;
            EXPECT_NEAR(told.held, static_cast<double>(chain.held) * record, 1e-3) << node;
            EXPECT_EQ(told.latency.has_value(), bytes > 0) << node;
            EXPECT_NEAR(told.latency.value_or(0), bytes > 0 ? inStage / told.bytesPerSecond : 0,
                        1e-9);
            EXPECT_EQ(told.lagNow, (node - 1) * (chain.waiting + chain.held) * chain.record +
                                       chain.waiting * chain.record);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Speeds, SteadyChain,
    testing::Values(SteadyRow{"Idle", {kMiB, 4096, 0, 0, 2, 1, 2}, true, true},
                    SteadyRow{"Slow", {kMiB, 4096, 100e3, 0, 2, 1, 2}, true, true},
                    SteadyRow{"Pictures", {8 * kMiB, kMiB, 30e6, 0, 3, 1, 1}, true, true},
                    SteadyRow{"ManyPackets", {64 * kMiB, 4096, 100e6, 0, 4, 3, 5}, true, false},
                    SteadyRow{"Fast", {64 * kMiB, 65536, 5e9, 0, 2, 9, 1}, true, false},
                    SteadyRow{"TooFastToFollow", {kMiB, 4096, 1e9, 0, 2, 3, 3}, false, false},
                    SteadyRow{"Tiny", {65536, 1024, 100e6, 0, 1, 3, 3}, false, false},
                    SteadyRow{"Whirling", {8192, 1024, 100e6, 0, 1, 3, 3}, false, false, true},
                    SteadyRow{"TheWholeRingHeld", {kMiB, 4096, 0, 0, 1, 0, 256, 9}, true, true},
                    SteadyRow{"TheWholeRingWaits", {kMiB, 4096, 0, 0, 1, 256, 0, 9}, true, true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(RingMetering, BeginsAnewWithEachFigures) {
    const ForgedChain chain{kMiB, 4096, 100e3, 0, 1, 1, 1};
    RingMeter meter = chain.Meter();
    std::uint64_t last = 0;
    for (int second = 1; second <= 5; ++second) {
        chain.Feed(meter, second - 1, second);
        const RingFigures figures = meter.Figures(ForgedChain::At(second));
        const std::uint64_t written = chain.Written(second) - chain.Written(0);
        EXPECT_EQ(figures.nodes[1].bytes, written);
        EXPECT_DOUBLE_EQ(figures.nodes[1].bytesPerSecond, static_cast<double>(written - last));
        EXPECT_DOUBLE_EQ(figures.seconds, 1);
        EXPECT_NEAR(figures.nodes[1].byteSeconds, second * 8192.0, 1);
        last = written;
    }
}

TEST(RingMetering, StartThatMayHaveGoneRoundUnseenIsAnEstimate) {
    // The slow one goes a tenth of the way in the longest gap between samples, the fast one further
    // than its index can tell.
    for (const double speed : {5e6, 120e6}) {
        const ForgedChain chain{kMiB, 4096, speed, 1.001, 1, 1, 1};
        RingMeter meter = chain.Meter();
        chain.Feed(meter, 0, 1);
        EXPECT_TRUE(meter.Figures(ForgedChain::At(1)).bytesAreExact);
        chain.Feed(meter, 1, 2);
        EXPECT_EQ(meter.Figures(ForgedChain::At(2)).bytesAreExact, speed < 10e6) << speed;
        chain.Feed(meter, 2, 3);
        const RingFigures figures = meter.Figures(ForgedChain::At(3));
        EXPECT_TRUE(figures.bytesAreExact);
        EXPECT_EQ(figures.byteTotalsAreExact, speed < 10e6) << speed;
    }
}

TEST(RingPacing, WhatHappensInAPauseIsNotKnown) {
    RingPace pace(kMiB);
    double now = 0;
    pace.Begin(ForgedChain::At(now));
    bool hasPaused = false;
    while (!hasPaused) {  // goes too far again and again, until it gives up for a while
        hasPaused = pace.Next() - ForgedChain::At(now) > std::chrono::milliseconds(10);
        now = ForgedChain::SecondsAt(pace.Next());
        EXPECT_FALSE(pace.Take(ForgedChain::At(now), hasPaused ? 1 : kMiB - 1).isKnown);
    }
    now = ForgedChain::SecondsAt(pace.Next());
    EXPECT_TRUE(pace.Take(ForgedChain::At(now), 1).isKnown);
}

TEST(RingPacing, LooksSeldomAtWhatStandsStill) {
    RingPace pace(kMiB);
    double now = 0;
    pace.Begin(ForgedChain::At(now));
    unsigned looks = 0;
    for (; now < 10; ++looks) {
        now = ForgedChain::SecondsAt(pace.Next());
        EXPECT_TRUE(pace.Take(ForgedChain::At(now), 0).isKnown);
    }
    EXPECT_GT(looks, 10 / 0.02);
    EXPECT_LT(looks, 10 / 0.01);
}

TEST(RecordCounting, HeaderThatCannotBeIsReckonedOver) {
    constexpr std::uint64_t kRecord = 100;
    for (const std::uint64_t torn : {kRecord, ~std::uint64_t(0), kMiB}) {
        RecordCounter counter(kMiB, [torn](std::uint64_t offset) {
            PacketHeader header;
            header.length = offset == 5 * kRecord ? torn : kRecord - kPacketHeaderSize;
            return header;
        });
        RingFields fields;
        fields.initialised = 1;
        fields.avail[0] = kMiB;
        counter.Begin(fields, *FlowOf(fields, kMiB, 1));
        counter.Go({8 * kRecord, 8 * kRecord}, 1, 0.01);
        EXPECT_FALSE(counter.IsExact());
        EXPECT_NEAR(counter.Take()[0], 8, 1);
        EXPECT_LE(counter.LongestRecord(), kRecord + kPacketHeaderSize);
        counter.Go({2 * kRecord, 2 * kRecord}, 1, 0.01);
        EXPECT_TRUE(counter.IsExact());
        EXPECT_NEAR(counter.Take()[1], 2, 1e-9);
    }
}

TEST(RecordCounting, FillerThatIsBeingWrittenIsWaitedFor) {
    constexpr std::uint64_t kRecord = 100;
    RecordCounter counter(kMiB, [](std::uint64_t offset) {
        PacketHeader header;
        header.length = kRecord - kPacketHeaderSize;
        header.ignoreData = offset == kRecord;
        return header;
    });
    RingFields fields;
    fields.initialised = 1;
    fields.avail[0] = kMiB;
    counter.Begin(fields, *FlowOf(fields, kMiB, 1));
    counter.Go({kRecord + kPacketHeaderSize, kRecord}, 1, 0.01);
    counter.Go({2 * kRecord - kPacketHeaderSize, 2 * kRecord}, 1, 0.01);
    EXPECT_TRUE(counter.IsExact());
    EXPECT_EQ(counter.Take()[0], 2);
}

TEST(RingMetering, LateSampleMakesAnEstimateThatIsNear) {
    const ForgedChain chain{kMiB, 4096, 20e6, 0, 2, 1, 1};  // goes round in 52 ms
    RingMeter meter = chain.Meter();
    chain.Feed(meter, 0, 1);
    meter.Take(chain.Fields(1.5), true, ForgedChain::At(1.5));
    const RingFigures figures = meter.Figures(ForgedChain::At(1.5));
    EXPECT_FALSE(figures.bytesAreExact);
    const auto written = static_cast<double>(chain.Written(1.5) - chain.Written(0));
    for (unsigned node = 0; node <= 2; ++node) {
        EXPECT_NEAR(static_cast<double>(figures.nodes.at(node).bytes), written, 0.02 * written);
    }
    chain.Feed(meter, 1.5, 2);
    EXPECT_TRUE(meter.Figures(ForgedChain::At(2)).bytesAreExact);
}

TEST(RingMetering, TellsWhenTheRingWasTooFull) {
    struct Row {
        std::uint64_t free;
        std::uint32_t packets;
        std::uint32_t limit;
        double full;
    };
    // A record takes its own length and the reserve of critical packets, 130 bytes.
    for (const Row& row : {Row{4096 + 130, 0, 0, 0}, Row{4096 + 129, 0, 0, 1},
                           Row{900'000, 5, 5, 1}, Row{900'000, 4, 5, 0}}) {
        const ForgedChain chain{kMiB, 4096, 0, 0, 1, 1, 1};
        RingMeter meter = chain.Meter();
        RingFields fields = chain.Fields(0);
        for (int sample = 0; sample < 10; ++sample) {
            meter.Take(fields, true, ForgedChain::At(sample * 0.01));
        }
        fields.avail[0] = row.free;
        fields.numPackets = row.packets;
        fields.maxPackets = row.limit;
        (void)meter.Figures(ForgedChain::At(0.09));
        meter.Take(fields, true, ForgedChain::At(0.1));
        const RingFigures figures = meter.Figures(ForgedChain::At(0.1));
        EXPECT_EQ(figures.largestRecord, 4096U);
        EXPECT_EQ(figures.full, row.full) << row.free;
        EXPECT_EQ(figures.packets, row.packets);
        EXPECT_EQ(figures.packetLimit, row.limit);
    }
}

TEST(RingMetering, FieldsOfNoRingAreNotComputedWith) {
    const ForgedChain chain{kMiB, 4096, 1e6, 0, 2, 1, 1};
    RingFields outside = chain.Fields(1);
    outside.rIdx[2] = kMiB;
    RingFields tooMuch = chain.Fields(1);
    tooMuch.avail[3] = kMiB + 1;
    RingFields uninitialised = chain.Fields(1);
    uninitialised.initialised = 0;
    RingFields zeros;
    zeros.initialised = 1;
    for (const RingFields& fields : {outside, tooMuch, uninitialised, zeros}) {
        RingMeter meter = chain.Meter();
        chain.Feed(meter, 0, 1);
        (void)meter.Figures(ForgedChain::At(1));
        meter.Take(fields, true, ForgedChain::At(1.1));
        meter.Take(fields, true, ForgedChain::At(1.2));
        const RingFigures figures = meter.Figures(ForgedChain::At(1.2));
        EXPECT_FALSE(figures.isSound);
        EXPECT_FALSE(figures.bytesAreExact);
        EXPECT_EQ(figures.nodes[0].bytesPerSecond, 0);
        EXPECT_EQ(figures.isInitialised, fields.initialised != 0 && !fields.LookNeverInitialised());
        chain.Feed(meter, 1.3, 2);
        (void)meter.Figures(ForgedChain::At(2));
        chain.Feed(meter, 2, 3);
        EXPECT_TRUE(meter.Figures(ForgedChain::At(3)).isSound);
    }
}

/// Values that hurt, and some that do not.
std::uint64_t Forged(std::mt19937_64& random, std::uint64_t size) {
    const std::array<std::uint64_t, 10> values{0,
                                               1,
                                               26,
                                               size / 2,
                                               size - 1,
                                               size,
                                               size + 1,
                                               std::numeric_limits<std::uint64_t>::max(),
                                               std::numeric_limits<std::uint64_t>::max() / 2,
                                               random() % size};
    return values.at(random() % values.size());
}

TEST(RingMetering, ForgedFieldsAndHeadersDoNoHarm) {
    std::mt19937_64 random(1);
    constexpr std::uint64_t kMostSize = 1ULL << 63U;
    for (const std::uint64_t size : {std::uint64_t(1), std::uint64_t(27), kMiB, kMostSize}) {
        std::uint64_t headers = 0;
        RingMeter meter(size, [&](std::uint64_t offset) {
            ++headers;
            EXPECT_LT(offset, size);
            PacketHeader header;
            header.length = Forged(random, size);
            header.ignoreData = random() % 2 == 0;
            return random() % 8 == 0 ? std::nullopt : std::optional(header);
        });
        constexpr int kSamples = 5000;
        constexpr double kStep = 1e-3;
        for (int sample = 0; sample < kSamples; ++sample) {
            RingFields fields;
            const bool isSound = random() % 4 != 0;
            for (unsigned node = 0; node < kMaxNodes; ++node) {
                fields.avail.at(node) = isSound ? random() % size : Forged(random, size);
                fields.rIdx.at(node) = isSound ? random() % size : Forged(random, size);
                fields.wIdx.at(node) = isSound ? random() % size : Forged(random, size);
            }
            fields.initialised = random() % 16 == 0 ? 0 : 1;
            fields.numPackets = static_cast<std::uint32_t>(random());
            fields.maxPackets = static_cast<std::uint32_t>(random() % 4);
            meter.Take(fields, random() % 2 == 0, ForgedChain::At(sample * kStep));
            if (sample % 100 == 0) {
                const RingFigures figures = meter.Figures(ForgedChain::At(sample * kStep));
                EXPECT_LE(figures.sink, 4U);
                EXPECT_GE(figures.nodes[1].bytesPerSecond, 0);
            }
        }
        EXPECT_LE(static_cast<double>(headers),
                  RecordCounter::kMostHeaders * (2 + kSamples * kStep));
    }
}

TEST(RingMetering, ObjectWithoutADataAreaIsNoRing) {
    RingMeter meter(0, [](std::uint64_t) { return std::nullopt; });
    meter.Take(RingFields(), true, ForgedChain::At(0));
    meter.Take(RingFields(), true, ForgedChain::At(1));
    EXPECT_FALSE(meter.Figures(ForgedChain::At(1)).isSound);
}

TEST(RingMetering, PacketsAndBytesOfARealChainComeOutRight) {
    constexpr int kPackets = 1000;
    constexpr std::size_t kPayload = 100;
    const RingUnderTest ring(2);
    const auto file = RingFile::Open(ring.Name());
    ASSERT_TRUE(file);
    RingMeter meter(file->Size(), [&](std::uint64_t offset) { return file->HeaderAt(offset); });
    double now = 0;
    const auto sample = [&] {
        meter.Take(file->Fields(), true, ForgedChain::At(now));
        now += 0.01;
    };
    sample();
    int fillers = 0;
    for (int packet = 0; packet < kPackets; ++packet) {
        (void)ring.Write(packet, kPayload);
        for (const std::size_t node : {1U, 2U}) {
            for (bool isFiller = true; isFiller;) {
                sample();
                const Packet read = ring.Read(node);
                isFiller = read.header.ignoreData;
                fillers += isFiller && node == 1 ? 1 : 0;
                EXPECT_EQ(ring.Node(node).ReleasePacket(read), SMStatusCode::SUCCESS);
            }
        }
        sample();
    }
    const RingFigures figures = meter.Figures(ForgedChain::At(now));
    // 39 records go into the ring; a filler takes the 86 bytes behind them.
    constexpr std::uint64_t kRecord = kPayload + kPacketHeaderSize;
    constexpr std::uint64_t kPerRound = 39;
    constexpr std::uint64_t kBytes =
        kPackets / kPerRound * RingUnderTest::kSize + kPackets % kPerRound * kRecord;
    EXPECT_EQ(fillers, kPackets / kPerRound);
    for (unsigned node = 0; node <= 2; ++node) {
        EXPECT_EQ(figures.nodes.at(node).packets, static_cast<std::uint64_t>(kPackets)) << node;
        EXPECT_EQ(figures.nodes.at(node).bytes, kBytes) << node;
    }
    EXPECT_TRUE(figures.byteTotalsAreExact);
    EXPECT_TRUE(figures.packetTotalsAreExact);
    EXPECT_EQ(figures.sink, 2U);
    EXPECT_EQ(figures.largestRecord, kRecord);
}

TEST(RingMetering, PacketsThatWereThereBeforeAreCountedWhenTheyAreRead) {
    const RingUnderTest ring(1);
    for (int packet = 0; packet < 3; ++packet) {
        (void)ring.Write(packet, 50);
    }
    const auto file = RingFile::Open(ring.Name());
    RingMeter meter(file->Size(), [&](std::uint64_t offset) { return file->HeaderAt(offset); });
    meter.Take(file->Fields(), true, ForgedChain::At(0));
    ring.PassOn(1);
    ring.PassOn(1);
    meter.Take(file->Fields(), true, ForgedChain::At(0.01));
    const RingFigures figures = meter.Figures(ForgedChain::At(0.01));
    EXPECT_EQ(figures.nodes[0].packets, 0U);
    EXPECT_EQ(figures.nodes[1].packets, 2U);
    EXPECT_TRUE(figures.packetsAreExact);
}

}  // namespace
}  // namespace qel::test
