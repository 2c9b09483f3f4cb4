/// Records whose headers say anything, written by a node that is no packet buffer, and packet
/// buffers that read them. What these make of them is what the model does.
#include <algorithm>

#include "AgainstModel.h"
#include "PacketRun.h"

namespace qel::fuzz {
namespace {

constexpr unsigned kMostSteps = 150;

/// A packet's header that states the right length or any other, and sometimes bytes of any number.
Bytes HeaderFrom(Input& input, std::uint64_t payload, std::uint64_t size) {
    if (input.Choice(8) == 0) {
        return input.TakeBytes(input.Choice(64));
    }
    const std::uint64_t length = input.Flag() ? payload : input.Edge(size);
    Bytes header = input.TakeBytes(kPacketHeaderSize);
    std::memcpy(header.data(), &length, sizeof(length));
    return header;
}

void WriteRecord(test::PacketRun& run, Input& input, std::uint64_t size) {
    // Longer than the ring is refused in any case.
    const std::uint64_t payload = input.Edge(size) % (size + 64);
    Bytes header = HeaderFrom(input, payload, size);
    header.resize(std::min<std::uint64_t>(header.size(), size));
    Bytes bytes(payload);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i);
    }
    run.WriteRecord(header, bytes, input.Flag());
}

void ReadOrRelease(test::PacketRun& run, Input& input) {
    using Kind = test::PacketCommand::Kind;
    constexpr std::array<Kind, 6> kKinds{Kind::ReadNext,  Kind::ReadNext, Kind::Release,
                                         Kind::PassAllOn, Kind::Print,    Kind::ReleaseSeveral};
    const Kind kind = kKinds.at(input.Choice(kKinds.size()));
    const unsigned node = input.Choice(5);
    run.Do({kind, node, 0, input.Choice(5), false});
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace qel;
    fuzz::Input input(data, size);
    fuzz::Compare([&input] {
        test::reference::EventCounts events;
        test::Chain chain = fuzz::ChainFrom(input);
        chain.orderly = false;
        test::PacketRun run(chain, events);
        for (unsigned i = 0; i < fuzz::kMostSteps && !input.IsUsedUp(); ++i) {
            if (input.Flag()) {
                fuzz::WriteRecord(run, input, chain.size);
            } else {
                fuzz::ReadOrRelease(run, input);
            }
        }
        run.PrintAll();
    });
    return 0;
}
