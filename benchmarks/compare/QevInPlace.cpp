// The ring with packets that are made where they lie.

#include <stdexcept>

#include "InPlaceWriter.h"
#include "NamedChannels.h"
#include "QevKinds.h"
#include "QevRing.h"

namespace qel::bench {
namespace {

class InPlaceSender final : public Sender {
public:
    InPlaceSender(const std::string& name, const Cell& cell)
        : all_(cell.readAll),
          ring_(OpenNode(name, cell, 0, false)),
          writer_(*ring_, cell.ring),
          inPlace_(*ring_) {}

    void Send(Source& source, Stamp stamp) override {
        ByteSpan room;
        if (writer_.Reserve(inPlace_, source.Size(), room) != WriteOutcome::Written) {
            throw std::runtime_error("the ring gives no room");
        }
        source.MakeIn(room.data(), stamp, all_);
        PacketHeader header;
        header.pts = static_cast<std::int64_t>(stamp.number);
        if (inPlace_.Commit(header, source.Size()) != SMStatusCode::SUCCESS) {
            throw std::runtime_error("the ring does not take a packet");
        }
    }

private:
    bool all_;
    std::unique_ptr<SharedPacketBufferIF> ring_;
    PacketWriter writer_;
    InPlaceWriter inPlace_;
};

class InPlaceReceiver final : public KitReceiver {
public:
    InPlaceReceiver(const std::string& name, const Cell& cell)
        : KitReceiver(name, cell, WaitMode::Adaptive) {}
};

}  // namespace

std::vector<Kind> QevInPlaceKinds() {
    return {NamedKind<InPlaceSender, InPlaceReceiver>("qev-in-place", RemoveRing, RefusalOfRing)};
}

}  // namespace qel::bench
