#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "ChildProcess.h"
#include "Metrics.h"
#include "NodeClaim.h"
#include "RingObject.h"
#include "RingUnderTest.h"

namespace qel::test {
namespace {

using Labels = Metrics::Labels;

Labels Node(const std::string& ring, int node) {
    return {{"ring", ring}, {"node", std::to_string(node)}};
}

TEST(RingMetrics, TellWhereTheBytesOfAChainAre) {
    const RingUnderTest ring(2);
    ring.Write(0, 100 - 26);
    ring.Write(1, 200 - 26);
    ring.Write(2, 400 - 26);
    ring.PassOn(1);      // 100 wait for node 2
    (void)ring.Read(1);  // 200 are held by node 1, 400 wait for it
    const Metrics metrics = Look(ring.Name()).Now();
    const Labels labels{{"ring", ring.Name()}};
    EXPECT_EQ(metrics.Value("qev_ring_size_bytes", labels), 5000);
    EXPECT_EQ(metrics.Value("qev_ring_free_bytes", labels), 4300);
    EXPECT_EQ(metrics.Value("qev_ring_waiting_bytes", Node(ring.Name(), 1)), 400);
    EXPECT_EQ(metrics.Value("qev_ring_held_bytes", Node(ring.Name(), 1)), 200);
    EXPECT_EQ(metrics.Value("qev_ring_waiting_bytes", Node(ring.Name(), 2)), 100);
    EXPECT_EQ(metrics.Value("qev_ring_held_bytes", Node(ring.Name(), 2)), 0);
    EXPECT_EQ(metrics.Value("qev_ring_waiting_bytes", Node(ring.Name(), 0)), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_waiting_bytes", Node(ring.Name(), 3)), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_packets", labels), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_packet_limit", labels), std::nullopt);
}

TEST(RingMetrics, TellPacketsWhereThereIsALimit) {
    const RingUnderTest ring(1, 6);
    ring.Write(0, 10);
    ring.Write(1, 10);
    const Metrics metrics = Look(ring.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_ring_packets", {{"ring", ring.Name()}}), 2);
    EXPECT_EQ(metrics.Value("qev_ring_packet_limit", {{"ring", ring.Name()}}), 7);
}

TEST(RingMetrics, TellSizeMemoryAndAgeOfTheObject) {
    const RingUnderTest ring;
    struct stat status {};
    ASSERT_EQ(stat(ring.Path().c_str(), &status), 0);
    const Labels labels{{"ring", ring.Name()}};
    const Metrics metrics = Look(ring.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_ring_allocated_bytes", labels),
              static_cast<double>(status.st_blocks) * 512);
    const auto created = metrics.Value("qev_ring_created_timestamp_seconds", labels);
    if (created) {  // the system tells it
        EXPECT_LE(*created, static_cast<double>(std::time(nullptr)) + 1);
        EXPECT_GE(*created, static_cast<double>(std::time(nullptr)) - 3600);
    }
}

TEST(RingMetrics, CountTheProcessesThatHaveTheRingMapped) {
    const RingUnderTest ring;
    const Labels labels{{"ring", ring.Name()}};
    EXPECT_EQ(Look(ring.Name()).Now().Value("qev_ring_users", labels), 0);  // itself it does not
    ChildProcess child([&](const Conversation& test) {
        const NodeClaim claim(ring.Name(), 3);
        test.Say("ready");
        (void)test.Hear();
        return 0;
    });
    ASSERT_EQ(child.Hear(), "ready");
    const Metrics metrics = Look(ring.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_ring_users", labels), 1);
    // A node that is claimed is one of the chain.
    EXPECT_EQ(metrics.Value("qev_ring_waiting_bytes", Node(ring.Name(), 3)), 0);
    EXPECT_EQ(metrics.Value("qev_ring_waiting_bytes", Node(ring.Name(), 4)), std::nullopt);
    child.Say("end");
}

TEST(RingMetrics, NameTheState) {
    const UniqueRingName name;
    const RingObject object(name.Name(), 5000);
    const Labels labels{{"ring", name.Name()}};
    const auto state = [&] { return Look(name.Name()).Now().State("qev_ring_state", labels); };
    EXPECT_EQ(state(), "fresh");
    const int file = open(name.Path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(pwrite(file, "\1", 1, 124), 1);
    EXPECT_EQ(state(), "never initialised");
    ASSERT_EQ(pwrite(file, "\xff\xff", 2, 40), 2);
    EXPECT_EQ(state(), "desynchronised");
    const Metrics metrics = Look(name.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_ring_size_bytes", labels), 5000);
    EXPECT_EQ(metrics.Value("qev_ring_free_bytes", labels), std::nullopt);  // not to be told
    ASSERT_EQ(pwrite(file, "\0\0", 2, 40), 2);
    ASSERT_EQ(pwrite(file, "\x88\x13", 2, 0), 2);
    // Not all processes may be to be seen here.
    EXPECT_TRUE(state() == "orphaned" || state() == "unseen") << state();
    (void)close(file);
}

TEST(RingMetrics, ObjectTooShortForARingIsShownAsOneWithoutBytes) {
    const UniqueRingName name;
    const int file = open(name.Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(write(file, "\xff\xff\xff", 3), 3);
    const Labels labels{{"ring", name.Name()}};
    const Metrics metrics = Look(name.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_ring_size_bytes", labels), 0);
    EXPECT_EQ(metrics.Value("qev_ring_free_bytes", labels), std::nullopt);
    EXPECT_EQ(metrics.State("qev_ring_state", labels), "desynchronised");
    (void)close(file);
}

/// What a measurement says of the ring.
RingTotal TotalOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    RingTotal total;
    total.device = status.st_dev;
    total.inode = status.st_ino;
    total.fullSeconds = 1.5;
    total.figures.moves = true;
    total.figures.packetTotalsAreExact = false;
    total.figures.nodes[0].bytes = 900;
    total.figures.nodes[0].packets = 9;
    total.figures.nodes[1].bytes = 700;
    total.figures.nodes[1].packets = 7;
    total.figures.nodes[1].byteSeconds = 2.25;
    total.latency[1] = 0.125;
    return total;
}

TEST(RingMetrics, TellWhatWasMeasured) {
    const RingUnderTest ring;
    Look look(ring.Name());
    look.Totals().Set({{ring.Name(), TotalOf(ring.Path())}});
    const Metrics metrics = look.Now();
    const Labels labels{{"ring", ring.Name()}};
    EXPECT_EQ(metrics.Value("qev_ring_moved_bytes_total", Node(ring.Name(), 0)), 900);
    EXPECT_EQ(metrics.Value("qev_ring_moved_packets_total", Node(ring.Name(), 0)), 9);
    EXPECT_EQ(metrics.Value("qev_ring_moved_bytes_total", Node(ring.Name(), 1)), 700);
    EXPECT_EQ(metrics.Value("qev_ring_moved_packets_total", Node(ring.Name(), 1)), 7);
    EXPECT_EQ(metrics.Value("qev_ring_moved_bytes_total", Node(ring.Name(), 2)), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_byte_seconds_total", Node(ring.Name(), 1)), 2.25);
    EXPECT_EQ(metrics.Value("qev_ring_byte_seconds_total", Node(ring.Name(), 0)), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_latency_seconds", Node(ring.Name(), 1)), 0.125);
    EXPECT_EQ(metrics.Value("qev_ring_latency_seconds", Node(ring.Name(), 0)), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_full_seconds_total", labels), 1.5);
    EXPECT_EQ(metrics.Value("qev_ring_totals_exact", labels), 0);
    EXPECT_EQ(metrics.State("qev_ring_state", labels), "live");
}

TEST(RingMetrics, DoWithoutTotalsThatWereMeasuredInAMoment) {
    const RingUnderTest ring;
    Look look(ring.Name(), RingTotals::Use::States);
    look.Totals().Set({{ring.Name(), TotalOf(ring.Path())}});
    const Metrics metrics = look.Now();
    EXPECT_EQ(metrics.State("qev_ring_state", {{"ring", ring.Name()}}), "live");
    EXPECT_EQ(metrics.Value("qev_ring_moved_bytes_total", Node(ring.Name(), 0)), std::nullopt);
    EXPECT_EQ(metrics.Value("qev_ring_totals_exact", {{"ring", ring.Name()}}), std::nullopt);
}

TEST(RingMetrics, TotalsOfAnotherObjectOfThatNameAreNotTheRings) {
    const RingUnderTest ring;
    RingTotal total = TotalOf(ring.Path());
    total.inode += 1;
    Look look(ring.Name());
    look.Totals().Set({{ring.Name(), total}});
    const Metrics metrics = look.Now();
    EXPECT_EQ(metrics.Value("qev_ring_moved_bytes_total", Node(ring.Name(), 0)), std::nullopt);
    EXPECT_NE(metrics.State("qev_ring_state", {{"ring", ring.Name()}}), "live");
}

}  // namespace
}  // namespace qel::test
