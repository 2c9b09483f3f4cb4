#include "Operations.h"

#include <array>
#include <numeric>
#include <stdexcept>

namespace qel::test {
namespace {

using Role = Operation::Role;
using Held = std::vector<Packet>;

constexpr std::uint64_t kPayload = 77;
constexpr std::uint64_t kPayloadThatWraps = 261;

void Require(bool condition) {
    if (!condition) {
        throw std::runtime_error("the ring cannot be prepared");
    }
}

Operation Writing(const std::string& name, std::uint64_t filler, WriteKind kind) {
    Operation operation{name, Role::Writer};
    operation.filler = filler;
    operation.written = filler == 0 ? kPayload : kPayloadThatWraps;
    operation.act = [size = operation.written, kind](SharedPacketBufferIF& ring, const Held&) {
        constexpr std::int64_t kNumber = 7;  // one through packet and six standing ones were first
        (void)WriteNumbered(ring, kNumber, size, kind);
    };
    return operation;
}

Operation Reading(const std::string& name, Role role) {
    Operation operation{name, role};
    operation.act = [](SharedPacketBufferIF& ring, const Held&) { (void)ring.ReadNextPacket(); };
    return operation;
}

Operation Releasing(const std::string& name, Role role) {
    Operation operation{name, role};
    operation.held = 1;
    operation.act = [](SharedPacketBufferIF& ring, const Held& held) {
        (void)ring.ReleasePacket(held.front());
    };
    return operation;
}

Operation Holding(const std::string& name, Role role) {
    Operation operation{name, role};
    operation.held = 2;
    operation.act = [](SharedPacketBufferIF& ring, const Held&) {
        (void)ring.GetCurrentCapacity();  // accesses that change nothing
    };
    return operation;
}

Operation Opening(const std::string& name, Role role, bool fresh) {
    Operation operation{name, role};
    operation.fresh = fresh;
    operation.opens = true;
    return operation;
}

}  // namespace

std::vector<Operation> Operations() {
    return {
        Opening("open a fresh ring", Role::Writer, true),
        Opening("open a fresh ring", Role::Sink, true),
        Opening("open a ring in use", Role::Writer, false),
        Opening("open a ring in use", Role::Sink, false),
        Writing("write", 0, WriteKind::Plain),
        Writing("write", 0, WriteKind::Critical),
        Writing("write", 0, WriteKind::Gathered),
        Writing("write of a filler", 150, WriteKind::Plain),
        Writing("write of a filler", 150, WriteKind::Critical),
        Writing("write of a filler", 150, WriteKind::Gathered),
        Writing("write of a filler, F = 27 to 51", 40, WriteKind::Plain),
        Writing("write of a filler, F = 26", 26, WriteKind::Plain),
        Reading("read, middle node", Role::Middle),
        Reading("read, sink", Role::Sink),
        Holding("hold, middle node", Role::Middle),
        Holding("hold, sink", Role::Sink),
        Releasing("release, middle node", Role::Middle),
        Releasing("release, sink", Role::Sink),
    };
}

Standing Prepare(const RingImage& ring, std::uint8_t dead, bool busy, std::uint64_t offset) {
    constexpr std::array<std::size_t, 6> kSizes = {40, 21, 33, 54, 47, 28};
    const std::uint8_t sink = ring.Form().sink;
    std::vector<std::unique_ptr<SharedPacketBufferIF>> nodes;
    for (std::uint8_t node = 0; node <= sink; ++node) {
        nodes.push_back(ring.Open(node));
    }
    Standing standing{NodeStates(sink + 1U), 0};
    const auto take = [&](std::uint8_t node, int count, bool keepLast) {
        for (; count > 0; --count) {
            const auto next = nodes[node]->ReadNextPacket();
            Require(next.status == SMStatusCode::SUCCESS);
            standing.states[node].lastRead = next.packet.header.pts;
            if (count == 1 && keepLast) {
                standing.states[node].held.push_back(next.packet);
            } else {
                Require(nodes[node]->ReleasePacket(next.packet) == SMStatusCode::SUCCESS);
            }
        }
    };
    const auto write = [&](std::size_t size) {
        Require(WriteNumbered(*nodes[0], standing.next++, size) == SMStatusCode::SUCCESS);
    };
    const std::uint64_t standingBytes =
        std::accumulate(kSizes.begin(), kSizes.end(), kSizes.size() * kPacketHeaderSize);
    write(offset - standingBytes - kPacketHeaderSize);
    for (std::uint8_t node = 1; node <= sink; ++node) {
        take(node, 1, false);
    }
    for (const std::size_t size : kSizes) {
        write(size);
    }
    for (std::uint8_t node = 1; node <= sink; ++node) {
        const bool holds = busy && node != dead;
        // Of what the node before has released, which is three for node 2 in any case.
        take(node, node == sink ? 1 : 3 + (holds ? 1 : 0), holds);
    }
    return standing;
}

}  // namespace qel::test
