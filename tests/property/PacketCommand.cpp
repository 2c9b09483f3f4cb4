#include "PacketCommand.h"

#include <array>

namespace qel::test {

std::ostream& operator<<(std::ostream& stream, const PacketCommand& command) {
    static constexpr std::array<const char*, 12> kNames{
        "Write",     "WriteMultiData", "ReadNext", "Release",  "ReleaseSeveral", "ReleaseWrong",
        "PassAllOn", "ReadData",       "Print",    "Capacity", "Reopen",         "WriteInPlace"};
    return stream << kNames.at(static_cast<std::size_t>(command.kind)) << "(node " << command.node
                  << ", shape " << command.shape << ", amount " << command.amount
                  << (command.critical ? ", critical)" : ")");
}

rc::Gen<std::vector<PacketCommand>> ArbitraryPacketCommands() {
    using Kind = PacketCommand::Kind;
    const auto any = [](unsigned limit) {
        return rc::gen::resize(rc::kNominalSize, rc::gen::inRange(0U, limit));
    };
    const auto kind = rc::gen::weightedElement<Kind>({{14, Kind::Write},
                                                      {7, Kind::WriteMultiData},
                                                      {7, Kind::WriteInPlace},
                                                      {10, Kind::ReadNext},
                                                      {10, Kind::Release},
                                                      {2, Kind::ReleaseSeveral},
                                                      {1, Kind::ReleaseWrong},
                                                      {4, Kind::PassAllOn},
                                                      {1, Kind::ReadData},
                                                      {2, Kind::Print},
                                                      {1, Kind::Capacity},
                                                      {1, Kind::Reopen}});
    const auto command = rc::gen::apply(
        [](Kind which, unsigned node, unsigned shape, unsigned amount, unsigned critical) {
            return PacketCommand{which, node, shape, amount, critical == 0};
        },
        kind, any(8), any(12), any(1024), any(3));
    return rc::gen::container<std::vector<PacketCommand>>(command);
}

}  // namespace qel::test
