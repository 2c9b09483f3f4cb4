// The ring from one writer to one reader, with each way to wait.

#include "QevKinds.h"

#include <semaphore.h>

#include <array>
#include <chrono>

#include "QevRing.h"
#include "SystemSemaphore.h"

namespace qel::bench {
namespace {

constexpr std::chrono::seconds kLookAgain{1};

/// Asks the ring again and again without any pause: what the modes of waiting are measured against.
class TightSender final : public Sender {
public:
    TightSender(const std::string& name, const Cell& cell)
        : ring_(OpenNode(name, cell, 0, false)) {}

    void Send(Source& source, Stamp stamp) override {
        const Packet packet = PacketOf(source, stamp);
        while (ring_->WritePacket(packet) != SMStatusCode::SUCCESS) {
        }
    }

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
};

class TightReceiver final : public Receiver {
public:
    TightReceiver(const std::string& name, const Cell& cell)
        : ring_(OpenNode(name, cell, 1, true)) {}

    View Next() override {
        while (true) {
            const ReadNextPacketResult read = ring_->ReadNextPacket();
            if (read.status != SMStatusCode::SUCCESS) {
                continue;
            }
            packet_ = read.packet;
            if (!packet_.header.ignoreData) {
                return {packet_.data.data(), packet_.data.size()};
            }
            Release();
        }
    }

    void Release() override { (void)ring_->ReleasePacket(packet_); }

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
    Packet packet_;
};

/// The semaphores that wake up the ends of a channel.
struct Bells {
    explicit Bells(const std::string& name)
        : data(name + ".data", SystemSemaphore::IfMissing::Create),
          room(name + ".room", SystemSemaphore::IfMissing::Create) {}

    SystemSemaphore data;
    SystemSemaphore room;
};

class WokenSender final : public Sender {
public:
    WokenSender(const std::string& name, const Cell& cell)
        : ring_(OpenNode(name, cell, 0, false)), bells_(name) {}

    void Send(Source& source, Stamp stamp) override {
        const Packet packet = PacketOf(source, stamp);
        while (ring_->WritePacket(packet) != SMStatusCode::SUCCESS) {
            (void)bells_.room.TakeFor(kLookAgain);
        }
        bells_.data.Signal();
    }

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
    Bells bells_;
};

class WokenReceiver final : public Receiver {
public:
    WokenReceiver(const std::string& name, const Cell& cell)
        : ring_(OpenNode(name, cell, 1, true)), reader_(*ring_), bells_(name) {}

    View Next() override {
        while (true) {
            if (const auto received = reader_.TryNext()) {
                ticket_ = received->ticket;
                return {received->packet.data.data(), received->packet.data.size()};
            }
            (void)bells_.data.TakeFor(kLookAgain);
        }
    }

    void Release() override {
        (void)reader_.Release(ticket_);
        bells_.room.Signal();
    }

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
    PacketReader reader_;
    Bells bells_;
    InOrderRelease::Ticket ticket_{};
};

enum class Waiting { Tight, Spin, Adaptive, Semaphore };

class Qev final : public Transport {
public:
    Qev(const Cell& cell, Waiting waiting)
        : cell_(cell), waiting_(waiting), names_{UniqueName(0), UniqueName(1)} {}

    ~Qev() override {
        for (const std::string& name : names_) {
            RemoveRing(name);
            (void)sem_unlink(("/" + name + ".data").c_str());
            (void)sem_unlink(("/" + name + ".room").c_str());
        }
    }

    std::unique_ptr<Sender> OpenSender(unsigned channel) override {
        const std::string& name = names_.at(channel);
        switch (waiting_) {
            case Waiting::Tight:
                return std::make_unique<TightSender>(name, cell_);
            case Waiting::Semaphore:
                return std::make_unique<WokenSender>(name, cell_);
            default:
                return std::make_unique<KitSender>(name, cell_, Mode());
        }
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned channel) override {
        const std::string& name = names_.at(channel);
        switch (waiting_) {
            case Waiting::Tight:
                return std::make_unique<TightReceiver>(name, cell_);
            case Waiting::Semaphore:
                return std::make_unique<WokenReceiver>(name, cell_);
            default:
                return std::make_unique<KitReceiver>(name, cell_, Mode());
        }
    }

private:
    [[nodiscard]] WaitMode Mode() const noexcept {
        return waiting_ == Waiting::Spin ? WaitMode::Spin : WaitMode::Adaptive;
    }

    Cell cell_;
    Waiting waiting_;
    std::array<std::string, 2> names_;
};

Kind KindOf(const char* name, Waiting waiting) {
    return {name, [waiting](const Cell& cell) { return std::make_unique<Qev>(cell, waiting); },
            RefusalOfRing};
}

}  // namespace

std::vector<Kind> QevKinds() {
    return {KindOf("qev-tight", Waiting::Tight), KindOf("qev-spin", Waiting::Spin),
            KindOf("qev-adaptive", Waiting::Adaptive), KindOf("qev-semaphore", Waiting::Semaphore)};
}

}  // namespace qel::bench
