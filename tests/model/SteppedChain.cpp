#include "SteppedChain.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <numeric>
#include <utility>

#include "OneSegment.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"

namespace qel::test {
namespace {

std::vector<unsigned char> PayloadOf(std::size_t number, std::size_t length) {
    std::vector<unsigned char> payload(length);
    std::iota(payload.begin(), payload.end(), static_cast<unsigned char>(1 + 31 * number));
    return payload;
}

}  // namespace

SteppedChain::SteppedChain(ChainPlan plan)
    : plan_(std::move(plan)),
      search_(&world_, sizeof world_),
      kernel_(std::make_shared<OneSegment>(world_.segment.data())) {
    ObserveAccesses(this);
}

SteppedChain::~SteppedChain() {
    ObserveAccesses(nullptr);
}

Interleavings::Result SteppedChain::SearchAll(unsigned preemptions) {
    return search_.SearchAll([this] { return NewRun(); }, preemptions);
}

Interleavings::Result SteppedChain::SearchRandomly(unsigned seed, std::uint64_t runs) {
    return search_.SearchRandomly([this] { return NewRun(); }, seed, runs);
}

std::vector<std::string> SteppedChain::Trace() {
    std::vector<std::string> trace;
    bool isFirst = true;
    (void)search_.SearchAll(
        [&] {
            trace_ = isFirst ? &trace : nullptr;
            isFirst = false;
            return NewRun();
        },
        0);
    trace_ = nullptr;
    return trace;
}

Interleavings::Run SteppedChain::NewRun() {
    world_ = World{};
    buffers_.clear();
    Interleavings::Run run;
    for (unsigned node = 0; node < plan_.nodes; ++node) {
        const SharedBufferIF::BufferInfo info{"stepped", plan_.size,
                                              static_cast<std::uint8_t>(node),
                                              node + 1 == plan_.nodes, plan_.maxFrames};
        buffers_.push_back(
            std::make_unique<SharedPacketBuffer>(std::make_unique<SharedBuffer>(kernel_, info)));
        run.nodes.emplace_back([this, node, buffer = buffers_.back().get()] {
            node == 0 ? Write(*buffer) : Read(*buffer, node);
        });
    }
    run.atEnd = [this] { return AtEnd(); };
    return run;
}

void SteppedChain::Write(SharedPacketBufferIF& buffer) {
    for (std::size_t number = 0; number < plan_.packets.size(); ++number) {
        const PlannedPacket planned = plan_.packets[number];
        auto payload = PayloadOf(number, planned.length);
        Packet packet{{}, {payload.data(), payload.size()}};
        packet.header.pts = static_cast<std::int64_t>(number);
        for (;;) {
            search_.BeginAttempt();
            const SMStatusCode status =
                planned.critical ? buffer.WriteCriticalPacket(packet) : buffer.WritePacket(packet);
            if (status == SMStatusCode::SUCCESS) {
                break;
            }
            if (status != SMStatusCode::NOT_ENOUGH_SPACE) {
                search_.Fail("a write reports " + std::to_string(static_cast<int>(status)));
            }
            search_.AwaitChange();
        }
        search_.Forget(number + 1);
    }
}

void SteppedChain::Read(SharedPacketBufferIF& buffer, std::size_t node) {
    std::deque<Packet> held;
    std::size_t next = 0;
    std::uint64_t position = 0;
    const auto releaseOldest = [&] {
        Release(buffer, held.front());
        held.pop_front();
        search_.Forget(++position * kMaxNodes + node);
    };
    while (next < plan_.packets.size()) {
        search_.BeginAttempt();
        const ReadNextPacketResult read = buffer.ReadNextPacket();
        if (read.status == SMStatusCode::SUCCESS) {
            CheckPacket(read, next);
            next += read.packet.header.ignoreData ? 0 : 1;
            held.push_back(read.packet);
            search_.Forget(++position * kMaxNodes + node);
            if (held.size() > plan_.kept) {
                releaseOldest();
            }
        } else if (read.status != SMStatusCode::DATA_NOT_AVAILABLE) {
            search_.Fail("a read reports " + std::to_string(static_cast<int>(read.status)));
        } else if (!held.empty()) {
            releaseOldest();
        } else {
            search_.AwaitChange();
        }
    }
    while (!held.empty()) {
        releaseOldest();
    }
}

void SteppedChain::CheckPacket(const ReadNextPacketResult& read, std::size_t number) {
    const PacketHeader& header = read.packet.header;
    if (header.length != read.packet.data.size()) {
        search_.Fail("a header and its payload differ");
    }
    if (header.ignoreData) {
        return;
    }
    if (header.pts != static_cast<std::int64_t>(number) ||
        header.length != plan_.packets[number].length) {
        search_.Fail("another packet than the next one arrives");
    }
}

void SteppedChain::Release(SharedPacketBufferIF& buffer, const Packet& packet) {
    if (!packet.header.ignoreData) {
        const auto number = static_cast<std::size_t>(packet.header.pts);
        const auto payload = PayloadOf(number, packet.data.size());
        for (std::size_t done = 0; done < payload.size(); done += kCopyPart) {
            const std::size_t part = std::min(kCopyPart, payload.size() - done);
            search_.Step();
            if (std::memcmp(packet.data.data() + done, payload.data() + done, part) != 0) {
                search_.Fail("a payload is not what was written");
            }
            search_.Note(done);
        }
    }
    if (const auto status = buffer.ReleasePacket(packet); status != SMStatusCode::SUCCESS) {
        search_.Fail("a release reports " + std::to_string(static_cast<int>(status)));
    }
}

}  // namespace qel::test
