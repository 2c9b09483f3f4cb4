#include <gmock/gmock.h>

#include "RingRun.h"

namespace qel::test {
namespace {

TEST(SharedBufferAgainstReference, RandomOperationsOfAllNodesLeaveEveryByteAsTheModelHasIt) {
    reference::EventCounts events;
    EXPECT_TRUE(rc::check("ring and model agree", [&events] {
        const auto chain = *ArbitraryChain();
        const auto commands = *ArbitraryRingCommands();
        RingRun run(chain, events);
        for (const auto& command : commands) {
            run.Do(command);
        }
        run.PrintAll();
    }));
    ExpectAllMet(events, {"accounting text dropped for an earlier one",
                          "control block forged",
                          "copy crossed the end",
                          "counting out clamped",
                          "critical write used the reserve",
                          "error text shown",
                          "fill refused for bytes",
                          "fill went on short of bytes at the packet limit",
                          "fill written",
                          "fill written exactly to the end",
                          "forged payload length overflowed",
                          "header longer than the ring refused",
                          "header not available",
                          "header read",
                          "payload not available",
                          "payload read",
                          "read at a bad index",
                          "read of a bad length",
                          "record ended exactly at the end",
                          "record written",
                          "releasing clamped",
                          "second opener of another size",
                          "size differs from the spans",
                          "taking clamped",
                          "view cut at the end",
                          "wrap asked for past the end",
                          "wrap asked for short of a header",
                          "wrap refused for packets",
                          "write refused for bytes",
                          "write refused for packets",
                          "write refused for the reserve alone"});
}

}  // namespace
}  // namespace qel::test
