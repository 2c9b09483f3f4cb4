#include "KillableChain.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <deque>
#include <memory>
#include <optional>

#include "Forked.h"
#include "TrappedSys.h"

namespace qel::test {

/// What one process of the chain does.
class KillableChain::Node {
public:
    Node(const RingImage& ring, Board& board, std::uint8_t node, std::uint64_t seed)
        : board_(board), desk_(board.desks.at(node)), node_(node), random_(seed) {
        if (AccessTrap::WhyNot() == nullptr) {
            trap_.emplace(record_);
        }
        buffer_ = ring.Open(node, std::make_shared<TrappedSys>(trap_ ? &*trap_ : nullptr));
    }

    [[noreturn]] void Work() {
        for (;;) {
            if (const std::uint64_t accesses = desk_.dieAfter.exchange(0); accesses != 0) {
                trap_->Start(accesses);
            }
            const bool idle = node_ == 0 ? !Write() : !Read();
            if (idle && desk_.isToRest.load() && held_.empty()) {
                Rest();
            } else if (idle) {
                ::sched_yield();
            }
        }
    }

private:
    void Rest() {
        constexpr unsigned kMostSeconds = 120;
        desk_.isToRest.store(false);
        ::sem_post(&desk_.rested);
        while (::sem_wait(&desk_.resumed) == -1 && errno == EINTR) {
        }
        ::alarm(kMostSeconds);
    }

    void Complain(const char* text) const {
        const char* none = nullptr;
        desk_.complaint.compare_exchange_strong(none, text);
    }

    /// @return false if there is nothing to be done at present
    bool Write() {
        if (desk_.isToRest.load()) {
            return false;
        }
        constexpr std::uint64_t kSizes = 230;
        if (!size_) {
            size_ = random_() % kSizes;
        }
        const auto kind = random_() % 4 == 0 ? WriteKind::Gathered : WriteKind::Plain;
        const SMStatusCode status =
            WriteNumbered(*buffer_, board_.written.load() + 1, *size_, kind);
        if (status == SMStatusCode::SUCCESS) {
            ++board_.written;
            size_.reset();
            return true;
        }
        if (status != SMStatusCode::NOT_ENOUGH_SPACE) {
            Complain("a write was answered with a status that it cannot have");
        }
        return false;
    }

    bool Read() {
        constexpr std::size_t kMostHeld = 4;
        if (held_.size() <= random_() % kMostHeld) {
            const auto next = buffer_->ReadNextPacket();
            if (next.status == SMStatusCode::SUCCESS) {
                Check(next.packet);
                held_.push_back(next.packet);
                return true;
            }
            if (next.status != SMStatusCode::DATA_NOT_AVAILABLE) {
                Complain("a read was answered with a status that it cannot have");
            }
            if (held_.empty()) {
                return false;
            }
        }
        if (buffer_->ReleasePacket(held_.front()) != SMStatusCode::SUCCESS) {
            Complain("a release was refused");
        }
        held_.pop_front();
        return true;
    }

    void Check(const Packet& packet) {
        if (!IsIntact(packet)) {
            Complain("a packet was torn");
        }
        if (packet.header.ignoreData) {
            return;
        }
        auto& last = board_.lastRead.at(node_);
        const std::int64_t steps = packet.header.pts - last.load();
        if (steps < 1 || steps > 1 + desk_.unheard.exchange(0)) {
            Complain("a packet was lost or came twice");
        }
        last.store(packet.header.pts);
    }

    Board& board_;
    Desk& desk_;
    std::uint8_t node_;
    std::mt19937_64 random_;
    AccessTrap::Record record_;
    std::optional<AccessTrap> trap_;
    std::unique_ptr<SharedPacketBufferIF> buffer_;
    std::optional<std::uint64_t> size_;  // of the packet that is to be written
    std::deque<Packet> held_;
};

KillableChain::KillableChain(const RingImage& ring, std::uint64_t seed)
    : ring_(ring), seeds_(seed) {
    (void)AccessTrap::WhyNot();  // found out once for all processes
    for (auto& last : board_->lastRead) {
        last.store(-1);
    }
    for (std::uint8_t node = 0; node <= Sink(); ++node) {
        Start(node);
    }
}

KillableChain::~KillableChain() {
    for (std::uint8_t node = 0; node <= Sink(); ++node) {
        if (processes_.at(node) > 0) {
            KillNow(node);
        }
    }
}

void KillableChain::Start(std::uint8_t node, bool resets) {
    Desk& desk = board_->desks.at(node);
    ::sem_init(&desk.rested, 1, 0);
    ::sem_init(&desk.resumed, 1, 0);
    desk.isToRest.store(false);
    desk.dieAfter.store(0);
    if (node == 0) {  // the dead one may have handed on one more than it could tell
        board_->written.store(std::max(board_->written.load(), board_->lastRead[1].load()));
    }
    for (std::size_t other = 0; resets && other < kMaxNodes; ++other) {
        board_->lastRead.at(other).store(board_->written.load());
        board_->desks.at(other).unheard.store(0);
    }
    const std::uint64_t seed = seeds_();
    processes_.at(node) = Fork([&] { Node(ring_, *board_, node, seed).Work(); });
    rests_.at(node) = false;
}

void KillableChain::Resume() {
    for (std::uint8_t node = 0; node <= Sink(); ++node) {
        if (rests_.at(node)) {
            rests_.at(node) = false;
            ::sem_post(&board_->desks.at(node).resumed);
        }
    }
}

void KillableChain::KillAfter(std::uint8_t node, std::uint64_t accesses) {
    board_->desks.at(node).dieAfter.store(accesses);
    Bury(node);
}

void KillableChain::KillNow(std::uint8_t node) {
    ::kill(processes_.at(node), SIGKILL);
    Bury(node);
}

void KillableChain::Bury(std::uint8_t node) {
    (void)WaitFor(processes_.at(node));
    processes_.at(node) = 0;
    ++board_->desks.at(node).unheard;
}

bool KillableChain::Rest() {
    constexpr int kMostSeconds = 60;
    for (std::uint8_t node = 0; node <= Sink(); ++node) {
        if (processes_.at(node) == 0 || rests_.at(node)) {
            continue;
        }
        Desk& desk = board_->desks.at(node);
        desk.isToRest.store(true);
        timespec until{};
        ::clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += kMostSeconds;
        while (::sem_timedwait(&desk.rested, &until) == -1) {
            if (errno != EINTR) {
                return false;
            }
        }
        rests_.at(node) = true;
    }
    return true;
}

std::string KillableChain::Complaints() const {
    std::string text;
    for (std::uint8_t node = 0; node <= Sink(); ++node) {
        if (const char* complaint = board_->desks.at(node).complaint.load()) {
            text += "node " + std::to_string(node) + ": " + complaint + "\n";
        }
    }
    return text;
}

bool KillableChain::AllDelivered() const {
    const std::int64_t missing = board_->written.load() - Delivered();
    return missing >= 0 && missing <= board_->desks.at(Sink()).unheard.load();
}

}  // namespace qel::test
