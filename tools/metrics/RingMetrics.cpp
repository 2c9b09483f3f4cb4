#include "RingMetrics.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <gsl/util>

#include "JudgedState.h"
#include "LabelText.h"
#include "RingFile.h"
#include "RingFlow.h"

namespace qel {
namespace {

constexpr auto kCounter = prometheus::MetricType::Counter;

constexpr MetricKind kSize{"qev_ring_size_bytes", "Bytes of the ring's data area."};
constexpr MetricKind kAllocated{"qev_ring_allocated_bytes",
                                "Memory that the ring's object has taken so far."};
constexpr MetricKind kCreated{"qev_ring_created_timestamp_seconds",
                              "When the ring's object was made, as seconds since 1970."};
constexpr MetricKind kUsers{"qev_ring_users",
                            "Processes that have the ring mapped to work with it."};
constexpr MetricKind kState{
    "qev_ring_state",
    "What becomes of the ring: live: packets move; idle: in use, nothing moves; orphaned: nobody "
    "uses it; unseen: nobody is seen to use it, and not all processes can be seen; fresh: nobody "
    "has opened it yet; never initialised; desynchronised: no ring can have such indices."};
constexpr MetricKind kFree{"qev_ring_free_bytes", "Bytes that the writer may write."};
constexpr MetricKind kWaiting{"qev_ring_waiting_bytes",
                              "Bytes handed to the node that it has not read."};
constexpr MetricKind kHeld{"qev_ring_held_bytes", "Bytes that the node has read and not released."};
constexpr MetricKind kPackets{"qev_ring_packets",
                              "Packets in the ring, fillers included; of rings with a limit."};
constexpr MetricKind kPacketLimit{"qev_ring_packet_limit",
                                  "Most packets that the ring takes; of rings with a limit."};
constexpr MetricKind kMovedBytes{"qev_ring_moved_bytes_total",
                                 "Bytes that the node has read, or node 0 written, since the "
                                 "exporter has seen the ring; headers and fillers included.",
                                 kCounter};
constexpr MetricKind kMovedPackets{"qev_ring_moved_packets_total",
                                   "Packets that the node has read, or node 0 written, since the "
                                   "exporter has seen the ring; without fillers.",
                                   kCounter};
constexpr MetricKind kByteSeconds{
    "qev_ring_byte_seconds_total",
    "Seconds that bytes have waited for the node or were held by it, summed over all bytes. "
    "Divided by the bytes moved it is the mean time that a packet spends at the node.",
    kCounter};
constexpr MetricKind kLatency{"qev_ring_latency_seconds",
                              "Mean time from handing a packet to the node until the node released "
                              "it, over about the last ten seconds; of nodes that have read any."};
constexpr MetricKind kFullSeconds{"qev_ring_full_seconds_total",
                                  "Time in which the writer had no room for the largest of the "
                                  "last packets.",
                                  kCounter};
constexpr MetricKind kExact{"qev_ring_totals_exact",
                            "1 if all that the ring has moved was seen; 0 if it was at times too "
                            "fast, and the totals of what it moved are estimates."};

MetricLabels OfNode(MetricLabels labels, gsl::index node) {
    labels.push_back({"node", std::to_string(node)});
    return labels;
}

unsigned LastNodeClaimed(const std::vector<ObjectUser>& users) {
    unsigned last = 0;
    for (const ObjectUser& user : users) {
        for (const unsigned node : user.Nodes()) {
            last = std::max(last, node);
        }
    }
    return last;
}

/// The system does not know of all objects when they were made.
void AddCreation(const RingFile& ring, const MetricLabels& labels, MetricFamilies& families) {
    struct statx status {};
    const bool isKnown = statx(AT_FDCWD, RingPath(ring.Name()).c_str(), AT_SYMLINK_NOFOLLOW,
                               STATX_BTIME | STATX_INO, &status) == 0 &&
                         (status.stx_mask & STATX_BTIME) != 0 &&
                         status.stx_ino == ring.Status().st_ino;
    if (isKnown) {
        constexpr double kNanoseconds = 1e-9;
        families.Add(
            kCreated, labels,
            ValueOf(status.stx_btime.tv_sec) + ValueOf(status.stx_btime.tv_nsec) * kNanoseconds);
    }
}

void AddObject(const RingFile& ring, const std::vector<ObjectUser>& users,
               const MetricLabels& labels, MetricFamilies& families) {
    constexpr double kStatusBlock = 512;
    const struct stat& status = ring.Status();
    families.Add(kSize, labels, ValueOf(ring.Size()));
    families.Add(kAllocated, labels, ValueOf(status.st_blocks) * kStatusBlock);
    families.Add(kUsers, labels,
                 ValueOf(std::count_if(users.begin(), users.end(),
                                       [](const ObjectUser& user) { return user.mapsToWrite; })));
    AddCreation(ring, labels, families);
}

void AddState(RingState state, const MetricLabels& labels, MetricFamilies& families) {
    std::vector<std::string_view> texts;
    for (const RingState possible :
         {RingState::Live, RingState::Idle, RingState::Orphaned, RingState::Unseen,
          RingState::Fresh, RingState::NeverInitialised, RingState::Desynchronised}) {
        texts.push_back(TextOf(possible));
    }
    families.AddState(kState, labels, texts, TextOf(state));
}

void AddFlow(const RingFlow& flow, const MetricLabels& labels, MetricFamilies& families) {
    families.Add(kFree, labels, ValueOf(flow.free));
    for (gsl::index node = 1; node <= static_cast<gsl::index>(flow.sink); ++node) {
        families.Add(kWaiting, OfNode(labels, node), ValueOf(gsl::at(flow.waiting, node)));
        families.Add(kHeld, OfNode(labels, node), ValueOf(gsl::at(flow.held, node)));
    }
}

void AddTotal(const RingTotal& total, const MetricLabels& labels, MetricFamilies& families) {
    const RingFigures& figures = total.figures;
    const bool isExact = figures.byteTotalsAreExact && figures.packetTotalsAreExact;
    families.Add(kExact, labels, isExact ? 1 : 0);
    families.Add(kFullSeconds, labels, total.fullSeconds);
    for (gsl::index node = 0; node <= static_cast<gsl::index>(figures.sink); ++node) {
        const NodeFigures& moved = gsl::at(figures.nodes, node);
        const MetricLabels ofNode = OfNode(labels, node);
        families.Add(kMovedBytes, ofNode, ValueOf(moved.bytes));
        families.Add(kMovedPackets, ofNode, ValueOf(moved.packets));
        if (node > 0) {
            families.Add(kByteSeconds, ofNode, moved.byteSeconds);
        }
        if (const auto& latency = gsl::at(total.latency, node)) {
            families.Add(kLatency, ofNode, *latency);
        }
    }
}

}  // namespace

void AddRing(const std::string& name, const ProcessSurvey& processes, const RingTotals& totals,
             MetricFamilies& families) {
    const auto ring = RingFile::Open(name);
    if (!ring) {
        return;
    }
    const MetricLabels labels{{"ring", LabelText(name)}};
    const struct stat& status = ring->Status();
    const auto& users = processes.UsersOf(status.st_dev, status.st_ino);
    AddObject(*ring, users, labels, families);
    const auto total = totals.Of(name, status);
    const RingFields fields = ring->StableFields().value_or(ring->Fields());
    const bool moves = total && total->figures.moves;
    AddState(JudgedStateOf(*ring, fields, moves, processes), labels, families);
    const unsigned sink = std::max(LastNodeReached(fields, ring->Size()), LastNodeClaimed(users));
    if (const auto flow = FlowOf(fields, ring->Size(), sink); flow && fields.LookInitialised()) {
        AddFlow(*flow, labels, families);
    }
    if (fields.maxPackets != 0) {
        families.Add(kPackets, labels, fields.numPackets);
        families.Add(kPacketLimit, labels, fields.maxPackets);
    }
    if (total && totals.For() == RingTotals::Use::Totals) {
        AddTotal(*total, labels, families);
    }
}

}  // namespace qel
