#include <gtest/gtest.h>

#include <cstdlib>

#include "AccessTrap.h"
#include "DeathTable.h"
#include "Deaths.h"
#include "Forked.h"
#include "TrappedSys.h"

namespace qel::test {
namespace {

TEST(RingDeaths, DocumentedTableIsWhatADeathAfterEveryAccessLeavesAndHowItIsPutRight) {
    if (const char* reason = AccessTrap::WhyNot()) {
        GTEST_SKIP() << reason;
    }
    const std::string measured = DeathTable::Format(MeasureDeaths());
    const DeathTable documented(QEV_RELIABILITY_DOCUMENT);
    if (std::getenv("QEV_REWRITE_DOCS") != nullptr && !testing::Test::HasFailure()) {
        documented.Replace(measured);
    }
    EXPECT_EQ(documented.Text(), measured);
}

TEST(RingDeaths, BetweenTheSystemCallsOfOpeningLeaveNothing) {
    for (const bool fresh : {false, true}) {
        for (const char* call : {"shm_open", "ftruncate", "mmap", "close"}) {
            SCOPED_TRACE(call);
            const RingImage ring({2000, 1, 3});
            if (fresh) {
                ::shm_unlink(ring.Name().ObjectName().c_str());
            }
            const int status = WaitFor(
                Fork([&] { (void)ring.Open(0, std::make_shared<TrappedSys>(nullptr, call)); }));
            ASSERT_TRUE(WasKilled(status));
            const auto writer = ring.Open(0);
            const auto sink = ring.Open(1);
            EXPECT_EQ(WriteNumbered(*writer, 1, 100), SMStatusCode::SUCCESS);
            const auto next = sink->ReadNextPacket();
            EXPECT_EQ(next.status, SMStatusCode::SUCCESS);
            EXPECT_TRUE(IsIntact(next.packet));
            EXPECT_EQ(sink->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
    }
}

}  // namespace
}  // namespace qel::test
