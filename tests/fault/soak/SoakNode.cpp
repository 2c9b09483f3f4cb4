#include "SoakNode.h"

#include <sstream>
#include <stdexcept>
#include <utility>

#include "IdleStrategy.h"
#include "ProcessState.h"
#include "SharedMemLibFactory.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRingSize = 1 << 20;
constexpr std::uint32_t kMaxFrames = 200;  // reached now and then, as is the ring's size
constexpr std::uint64_t kPacketsPerTurn = 50;
constexpr std::uint64_t kPacketsPerRound = 1000;

void Require(SMStatusCode status, const std::string& step) {
    if (status != SMStatusCode::SUCCESS) {
        std::ostringstream text;
        text << step << " answered " << status;
        throw std::runtime_error(text.str());
    }
}

/// Packets that a node keeps while more are waiting.
std::size_t HeldBy(unsigned node) {
    return node == 2 ? 3 : node == 3 ? 5 : 0;
}

}  // namespace

SharedBufferIF::BufferInfo SoakRing(const std::string& name, unsigned node) {
    return {name, kRingSize, static_cast<std::uint8_t>(node), node + 1 == kSoakNodes, kMaxFrames};
}

SoakNode::SoakNode(const SoakNames& names, const SoakPackets& packets, const SoakPlan& plan,
                   unsigned node, SoakBoard& board)
    : names_(names),
      packets_(packets),
      clock_(plan),
      node_(node),
      board_(board),
      figures_(board.nodes.at(node)),
      block_(names.block, node, board),
      semaphores_(names.units, names.gate, node, board) {
    OpenRing();
}

void SoakNode::OpenRing() {
    auto result =
        SharedMemLibFactory::Create()->GetSharedPacketBuffer(SoakRing(names_.ring, node_));
    Require(result.status, "opening the ring");
    ring_ = std::move(result.buffer);
    ++figures_.openings;
}

void SoakNode::Run() {
    IdleStrategy idle;
    while (!ended_) {
        if (board_.failed) {
            throw std::runtime_error("another process has failed");
        }
        if (!(node_ == 0 ? WriteNext() : ReadNext())) {
            LetGo();
            idle.Idle();
            continue;
        }
        idle.Reset();
        if (next_ % kPacketsPerTurn == 0) {
            block_.Turn(next_ / kPacketsPerTurn + node_);
            semaphores_.Turn(next_ / kPacketsPerTurn + node_);
        }
        if (next_ % kPacketsPerRound == 0) {
            StartRound();
        }
    }
    LetGo();
    WaitForAll();
}

/// False if it has to wait.
bool SoakNode::WriteNext() {
    if (clock_.IsTooEarlyFor(next_)) {
        return false;
    }
    // By time, a soak ends with a round.
    const bool isLast = clock_.Done(next_ + 1) >= 1 && (next_ + 1) % kPacketsPerRound == 0;
    const SMStatusCode status = packets_.Write(*ring_, next_, isLast);
    if (SoakPackets::IsForNow(status, next_)) {
        return false;
    }
    Require(status, "writing packet " + std::to_string(next_));
    ++next_;
    ++figures_.packets;
    ended_ = isLast;
    return true;
}

/// False if it has to wait.
bool SoakNode::ReadNext() {
    const auto read = ring_->ReadNextPacket();
    if (read.status == SMStatusCode::DATA_NOT_AVAILABLE) {
        return false;
    }
    Require(read.status, "ReadNextPacket");
    held_.push_back(read.packet);
    if (read.packet.header.ignoreData) {
        ++figures_.fillers;
    } else {
        Check(read.packet, next_);
        ++next_;
        ++figures_.packets;
        figures_.bytes += read.packet.data.size();
        ended_ = SoakPackets::IsLast(read.packet);
    }
    if (held_.size() > HeldBy(node_)) {
        LetGo();
    }
    return true;
}

/// Hands on what is held, having looked at the packets once more.
void SoakNode::LetGo() {
    for (const Packet& packet : held_) {
        if (!packet.header.ignoreData) {
            Check(packet, static_cast<std::uint64_t>(std::int64_t{packet.header.pts}));
        }
        if (node_ != 3) {
            Require(ring_->ReleasePacket(packet), "ReleasePacket");
        }
    }
    if (node_ == 3 && !held_.empty()) {
        Require(ring_->ReleasePackets(held_), "ReleasePackets");
    }
    held_.clear();
}

void SoakNode::Check(const Packet& packet, std::uint64_t number) const {
    if (const std::string fault = packets_.Fault(packet, number); !fault.empty()) {
        throw std::runtime_error(fault);
    }
}

/// Opens everything anew and looks at what the process holds.
void SoakNode::StartRound() {
    LetGo();
    ring_.reset();
    OpenRing();
    semaphores_.Reopen(next_ / kPacketsPerRound);
    block_.TurnOnTwoThreads();
    block_.Reopen();
    watch_.Take(clock_.Done(next_));
    figures_.resident = watch_.Last().resident;
}

/// The block lives until the last process is done with it.
void SoakNode::WaitForAll() {
    figures_.atQuarter = watch_.AtQuarter();
    figures_.last = watch_.Last();
    figures_.judged = watch_.HasJudged();
    ++board_.finished;
    IdleStrategy idle;
    while (board_.finished < kSoakNodes && !board_.failed) {
        idle.Idle();
    }
    ring_.reset();
    semaphores_.Close();
    block_.Close();
    for (const std::string& name :
         {names_.ring, names_.block, names_.units.substr(1), names_.gate.substr(1)}) {
        if (!(HoldingsOf(name) == Holdings{})) {
            throw std::runtime_error("something of " + name + " is still held at the end");
        }
    }
}

}  // namespace qel::test
