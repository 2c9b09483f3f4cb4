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
    ExpectAllMet(events, {"counting out clamped",
                          "critical write used the reserve",
                          "error text shown",
                          "fill refused for bytes",
                          "fill written exactly to the end",
                          "filler failed otherwise",
                          "filler read",
                          "header not available",
                          "no room for a filler",
                          "no space after the filler",
                          "packet read",
                          "packet released that was never read",
                          "packet without its payload",
                          "record ended exactly at the end",
                          "releasing clamped",
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
