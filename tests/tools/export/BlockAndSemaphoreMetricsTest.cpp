#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "BlockHolder.h"
#include "ChildProcess.h"
#include "Metrics.h"
#include "SharedMemoryBlockReader.h"
#include "SystemSemaphore.h"
#include "UniqueBlockName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using Labels = Metrics::Labels;

Labels Lock(const std::string& block, const std::string& lock) {
    return {{"block", block}, {"lock", lock}};
}

TEST(BlockMetrics, TellSizeUsersAndWhatTheCreatorIs) {
    const UniqueBlockName name;
    const Labels labels{{"block", name.Name()}};
    BlockHolder holder({"block", "write", name.Name(), "--size", "4096"});
    const Metrics metrics = Look(name.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_block_size_bytes", labels), 4096);
    EXPECT_EQ(metrics.Value("qev_block_users", labels), 1);
    EXPECT_EQ(metrics.State("qev_block_state", labels), "alive");
    EXPECT_EQ(metrics.Value("qev_block_lock_holders", Lock(name.Name(), "shared")), 0);
    EXPECT_EQ(metrics.Value("qev_block_lock_holders", Lock(name.Name(), "exclusive")), 0);

    holder.Process().Signal(SIGINT);
    EXPECT_EQ(holder.Process().Wait().status, 0);
    const Metrics after = Look(name.Name()).Now();
    EXPECT_EQ(after.Value("qev_block_size_bytes", labels), std::nullopt);  // nobody tells it
    EXPECT_EQ(after.Value("qev_block_users", labels), 0);
    EXPECT_EQ(after.State("qev_block_state", labels), "gone");
}

TEST(BlockMetrics, CountTheHoldersOfTheLock) {
    const UniqueBlockName name;
    BlockHolder holder({"block", "write", name.Name(), "--size", "100"});
    ChildProcess reader([&](const Conversation& test) {
        SharedMemoryBlockReader block(name.Name());
        block.Lock();
        test.Say("locked");
        (void)test.Hear();
        block.Unlock();
        return 0;
    });
    ASSERT_EQ(reader.Hear(), "locked");
    const Metrics metrics = Look(name.Name()).Now();
    EXPECT_EQ(metrics.Value("qev_block_lock_holders", Lock(name.Name(), "shared")), 1);
    EXPECT_EQ(metrics.Value("qev_block_lock_holders", Lock(name.Name(), "exclusive")), 0);
    EXPECT_EQ(metrics.Value("qev_block_users", {{"block", name.Name()}}), 2);
    reader.Say("end");
}

TEST(BlockMetrics, TellStaleRecordsAndNone) {
    const UniqueBlockName name;
    const Labels labels{{"block", name.Name()}};
    const auto state = [&] { return Look(name.Name()).Now().State("qev_block_state", labels); };
    WriteFile(name.LockPath(), "");
    EXPECT_EQ(state(), "none");
    // A record that leads to this process's standard input, which is no block.
    std::string record(40, '\0');
    record[0] = 1;
    const std::string pid = [] {
        const pid_t self = getpid();
        return std::string(reinterpret_cast<const char*>(&self), sizeof self);
    }();
    record.replace(8, pid.size(), pid);
    WriteFile(name.LockPath(), record);
    EXPECT_EQ(state(), "stale");
    EXPECT_EQ(Look(name.Name()).Now().Value("qev_block_users", labels), 0);
}

TEST(SemaphoreMetrics, TellValueAndUsers) {
    const UniqueSemaphoreName name;
    const std::string bare = name.Name().substr(1);
    const Labels labels{{"semaphore", bare}};
    const SystemSemaphore semaphore(bare, SystemSemaphore::IfMissing::Create);
    semaphore.Post();
    semaphore.Post();
    EXPECT_EQ(Look(bare).Now().Value("qev_semaphore_users", labels), 0);  // itself it does not
    ChildProcess user([](const Conversation& test) {
        test.Say("ready");
        (void)test.Hear();
        return 0;
    });
    ASSERT_EQ(user.Hear(), "ready");
    const Metrics metrics = Look(bare).Now();
    EXPECT_EQ(metrics.Value("qev_semaphore_value", labels), 2);
    EXPECT_EQ(metrics.Value("qev_semaphore_users", labels), 1);
    EXPECT_EQ(metrics.Value("qev_semaphore_waiting_threads", labels), 0);
    user.Say("end");
}

TEST(SemaphoreMetrics, DamagedFileIsUnreadable) {
    const UniqueSemaphoreName name;
    const std::string bare = name.Name().substr(1);
    WriteFile(SystemSemaphore::PathOf(bare), "1234");
    const Look look(bare);
    const Metrics metrics = look.Now();
    EXPECT_EQ(metrics.With("semaphore", bare), 0);
    EXPECT_EQ(metrics.Value("qev_exporter_unreadable_objects", {{"kind", "semaphore"}}), 1);
    ASSERT_EQ(look.Complaints().size(), 1U);
    EXPECT_EQ(look.Complaints()[0],
              "semaphore " + bare + ": its file has not a semaphore's length");
}

}  // namespace
}  // namespace qel::test
