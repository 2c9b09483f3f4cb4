#include <gmock/gmock.h>

#include "PacketRun.h"

namespace qel::test {
namespace {

TEST(SharedPacketBufferAgainstReference, RandomOperationsOfAllNodesLeaveEveryByteAsTheModelHasIt) {
    reference::EventCounts events;
    EXPECT_TRUE(rc::check("packet buffer and model agree", [&events] {
        const auto chain = *ArbitraryChain();
        const auto commands = *ArbitraryPacketCommands();
        PacketRun run(chain, events);
        for (const auto& command : commands) {
            run.Do(command);
        }
        run.PrintAll();
    }));
    ExpectAllMet(events, {"all used that was reserved",
                          "counting out clamped",
                          "critical write used the reserve",
                          "error text shown",
                          "fill refused for bytes",
                          "fill written exactly to the end",
                          "filler failed otherwise",
                          "filler read",
                          "header not available",
                          "less used than was reserved",
                          "no room for a filler",
                          "no room to reserve",
                          "no room to reserve after the filler",
                          "no room to reserve behind a filler",
                          "no space after the filler",
                          "packet read",
                          "packet released that was never read",
                          "packet without its payload",
                          "record ended exactly at the end",
                          "releasing clamped",
                          "reservation given up",
                          "reservation that can never be",
                          "reserved after a filler",
                          "ring at rest",
                          "several released at once",
                          "would wrap again after the filler",
                          "wrap asked for past the end",
                          "wrap asked for short of a header",
                          "wrap refused for packets",
                          "write refused for bytes",
                          "write refused for packets",
                          "write refused for the reserve alone",
                          "written after a filler"});
}

}  // namespace
}  // namespace qel::test
