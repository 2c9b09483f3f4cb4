// Chains of nodes.

#include <fmt/format.h>

#include "QevKinds.h"
#include "QevRing.h"

namespace qel::bench {
namespace {

/// Nodes behind each other, which all read every packet in place.
class QevChain final : public Transport {
public:
    QevChain(const Cell& cell, unsigned readers)
        : cell_(cell), readers_(readers), name_(UniqueName(0)) {}

    ~QevChain() override { RemoveRing(name_); }

    [[nodiscard]] unsigned Readers() const override { return readers_; }

    std::unique_ptr<Sender> OpenSender(unsigned /*channel*/) override {
        return std::make_unique<KitSender>(name_, cell_, WaitMode::Adaptive);
    }

    std::unique_ptr<Receiver> OpenReceiver(unsigned reader) override {
        return std::make_unique<KitReceiver>(name_, cell_, WaitMode::Adaptive, reader + 1,
                                             reader + 1 == readers_);
    }

private:
    Cell cell_;
    unsigned readers_;
    std::string name_;
};

Kind ChainOf(unsigned nodes) {
    return {fmt::format("qev-chain-{}", nodes),
            [nodes](const Cell& cell) { return std::make_unique<QevChain>(cell, nodes - 1); },
            RefusalOfRing};
}

}  // namespace

std::vector<Kind> QevChainKinds() {
    return {ChainOf(2), ChainOf(3), ChainOf(4), ChainOf(5)};
}

}  // namespace qel::bench
