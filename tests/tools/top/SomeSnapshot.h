#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Snapshot.h"

namespace qel::test {

inline ObjectUser UserOf(pid_t pid, const std::string& command, char state = 'S') {
    ObjectUser user;
    user.pid = pid;
    user.command = command;
    user.state = state;
    return user;
}

/// A node that reads so many megabytes a second, as it did all the minute but for a swing.
inline NodeRow NodeOf(double megabytes, double packets, double waiting, double held) {
    NodeRow row;
    row.figures.bytesPerSecond = megabytes * 1e6;
    row.figures.packetsPerSecond = packets;
    row.figures.waiting = waiting;
    row.figures.held = held;
    row.figures.waitingNow = static_cast<std::uint64_t>(waiting);
    row.figures.heldNow = static_cast<std::uint64_t>(held);
    row.figures.bytes = static_cast<std::uint64_t>(megabytes * 1e8);
    row.figures.packets = static_cast<std::uint64_t>(packets * 100);
    if (waiting + held > 0 && megabytes > 0) {
        row.latency = (waiting + held) / megabytes / 1e6;
    }
    for (int at = 0; at < 120; ++at) {
        row.rates.push_back(megabytes * 1e6 * (1 + std::sin(at / 10.0)) / 2);
    }
    return row;
}

inline RingRow RingOf(std::string name, std::uint64_t size, std::vector<NodeRow> nodes) {
    RingRow ring;
    ring.name = std::move(name);
    ring.figures.isInitialised = ring.figures.isSound = true;
    ring.figures.size = size;
    ring.figures.sink = static_cast<unsigned>(nodes.size() - 1);
    double used = 0;
    std::uint64_t lag = 0;
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        NodeFigures& told = nodes[node].figures;
        used += told.waiting + told.held;
        lag += told.waitingNow;
        told.lagNow = node == 0 ? 0 : lag;
        lag += told.heldNow;
        ring.figures.nodes.at(node) = told;
    }
    ring.figures.moves = nodes[0].figures.bytesPerSecond > 0;
    ring.state = "live";
    ring.figures.fill = used / static_cast<double>(size);
    ring.figures.freeNow = size - static_cast<std::uint64_t>(used);
    ring.nodes = std::move(nodes);
    return ring;
}

/// A machine with something of everything.
inline Snapshot SomeSnapshot() {
    constexpr double kMiB = 1U << 20U;
    Snapshot snapshot;
    snapshot.interval = 0.5;
    snapshot.hiddenProcesses = 7;

    RingRow camera = RingOf("camera", 64U << 20U,
                            {NodeOf(93.3, 30, 0, 0), NodeOf(93.3, 30, 3 * kMiB, 6 * kMiB),
                             NodeOf(93.1, 29.9, 0, 3 * kMiB), NodeOf(93.0, 29.9, 20 * kMiB, 0)});
    camera.nodes[0].processes = {UserOf(4711, "camera-daemon")};
    camera.nodes[1].processes = {UserOf(4712, "overlay")};
    camera.nodes[2].processes = {UserOf(1234567, "a-very-long-name")};
    camera.nodes[3].processes = {UserOf(4713, "encoder", 'T'), UserOf(4714, "encoder")};
    camera.figures.full = 0.25;
    camera.figures.packets = 11;
    camera.figures.packetLimit = 31;
    camera.figures.largestRecord = 3U << 20U;

    RingRow audio =
        RingOf("audio", 1U << 20U, {NodeOf(0.19, 93.75, 0, 0), NodeOf(0.19, 93.75, 90, 0)});
    audio.figures.full = 0;
    audio.figures.largestRecord = 2074;
    audio.figures.packetsAreExact = audio.figures.packetTotalsAreExact = false;
    audio.others = {UserOf(900, "mixer"), UserOf(901, "mixer")};

    RingRow damaged = RingOf("damaged", 5000, {NodeOf(0, 0, 0, 0), NodeOf(0, 0, 0, 0)});
    damaged.figures.isSound = false;
    damaged.state = "desynchronised";
    RingRow foreign;
    foreign.name = "foreign\n";
    foreign.trouble = "cannot read /dev/shm/foreign\n.shm: 13(Permission denied)";
    RingRow fresh = RingOf("fresh", 5000, {NodeOf(0, 0, 0, 0), NodeOf(0, 0, 0, 0)});
    fresh.figures.isInitialised = fresh.figures.isSound = false;
    fresh.state = "never initialised";
    RingRow quick =
        RingOf("quick", 65536, {NodeOf(2500, 2.4e6, 0, 0), NodeOf(2490, 2.4e6, 6e4, 5e3)});
    quick.figures.bytesAreExact = quick.figures.packetsAreExact = false;
    quick.figures.byteTotalsAreExact = quick.figures.packetTotalsAreExact = false;
    quick.figures.isTooFast = true;
    snapshot.rings = {audio, camera, damaged, foreign, fresh, quick};

    snapshot.blocks = {{"camera.format", "live", 4096, {UserOf(4711, "camera-daemon")}},
                       {"left-over", "stale record", std::nullopt, {}}};
    snapshot.semaphores = {
        {"camera.ready", "", 3, 0, {UserOf(4711, "camera-daemon"), UserOf(4712, "overlay")}},
        {"camera.space", "", 0, 1, {UserOf(4711, "camera-daemon")}},
        {"cut", "damaged", 0, 0, {}}};
    return snapshot;
}

}  // namespace qel::test
