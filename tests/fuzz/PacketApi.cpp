/// Random sequences of operations on rings and packet buffers. Results, texts, counters and data
/// are those of the model.
#include "AgainstModel.h"
#include "PacketRun.h"
#include "RingRun.h"

namespace qel::fuzz {
namespace {

constexpr unsigned kMostCommands = 150;

test::RingCommand RingCommandFrom(Input& input) {
    const auto kind = static_cast<test::RingCommand::Kind>(input.Choice(16));
    const unsigned node = input.Choice(8);
    const unsigned header = input.Choice(8);
    const unsigned shape = input.Choice(12);
    const unsigned amount = input.Amount(1024);
    return {kind, node, header, shape, amount, input.Flag()};
}

test::PacketCommand PacketCommandFrom(Input& input) {
    using Kind = test::PacketCommand::Kind;
    auto kind = static_cast<Kind>(input.Choice(11));
    const unsigned node = input.Choice(8);
    const unsigned shape = input.Choice(12);
    if (kind == Kind::Write && shape == 11) {  // what the corpus holds keeps its meaning
        kind = Kind::WriteInPlace;
    }
    const unsigned amount = input.Amount(1024);
    return {kind, node, shape, amount, input.Flag()};
}

template <typename Run, typename NextCommand>
void DoAll(Input& input, const NextCommand& nextCommand) {
    test::reference::EventCounts events;
    Run run(ChainFrom(input), events);
    for (unsigned i = 0; i < kMostCommands && !input.IsUsedUp(); ++i) {
        run.Do(nextCommand(input));
    }
    run.PrintAll();
}

}  // namespace
}  // namespace qel::fuzz

int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace qel;
    fuzz::Input input(data, size);
    fuzz::Compare([&input] {
        if (input.Flag()) {
            fuzz::DoAll<test::PacketRun>(input, fuzz::PacketCommandFrom);
        } else {
            fuzz::DoAll<test::RingRun>(input, fuzz::RingCommandFrom);
        }
    });
    return 0;
}
