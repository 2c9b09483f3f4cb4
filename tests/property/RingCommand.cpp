#include "RingCommand.h"

#include <array>

namespace qel::test {

std::ostream& operator<<(std::ostream& stream, const RingCommand& command) {
    static constexpr std::array<const char*, 16> kNames{
        "WritePayload", "WriteMultiData", "WriteSkip",  "FillToEnd", "ReadHeader", "ReadPayload",
        "ReadData",     "PassOn",         "PassAllOn",  "Release",   "Print",      "PrintDisabled",
        "Capacity",     "Reopen",         "OpenLarger", "Forge"};
    return stream << kNames.at(static_cast<std::size_t>(command.kind)) << "(node " << command.node
                  << ", header " << command.header << ", shape " << command.shape << ", amount "
                  << command.amount << (command.critical ? ", critical)" : ")");
}

rc::Gen<std::vector<RingCommand>> ArbitraryRingCommands() {
    using Kind = RingCommand::Kind;
    const auto any = [](unsigned limit) {
        return rc::gen::resize(rc::kNominalSize, rc::gen::inRange(0U, limit));
    };
    const auto kind = rc::gen::weightedElement<Kind>({{12, Kind::WritePayload},
                                                      {7, Kind::WriteMultiData},
                                                      {3, Kind::WriteSkip},
                                                      {5, Kind::FillToEnd},
                                                      {4, Kind::ReadHeader},
                                                      {4, Kind::ReadPayload},
                                                      {3, Kind::ReadData},
                                                      {10, Kind::PassOn},
                                                      {3, Kind::PassAllOn},
                                                      {3, Kind::Release},
                                                      {2, Kind::Print},
                                                      {1, Kind::PrintDisabled},
                                                      {1, Kind::Capacity},
                                                      {1, Kind::Reopen},
                                                      {1, Kind::OpenLarger},
                                                      {2, Kind::Forge}});
    const auto command = rc::gen::apply(
        [](Kind which, unsigned node, unsigned header, unsigned shape, unsigned amount,
           unsigned critical) {
            return RingCommand{which, node, header, shape, amount, critical == 0};
        },
        kind, any(8), any(8), any(12), any(1024), any(4));
    return rc::gen::container<std::vector<RingCommand>>(command);
}

}  // namespace qel::test
