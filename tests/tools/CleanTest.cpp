#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <string>
#include <vector>

#include "Command.h"
#include "RestingRing.h"
#include "SharedMemoryBlockWriter.h"
#include "UniqueBlockName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(Clean, RemovesOrphansAfterListingThem) {
    const RestingRing ring;
    ring.Write("hello");
    const UniqueBlockName block;
    WriteFile(block.LockPath(), "");
    const UniqueSemaphoreName semaphore;
    EXPECT_EQ(RunQev({"sem", "post", semaphore.Name()}).status, 0);
    const std::vector<std::string> names{ring.Name(), block.Name(), semaphore.Name().substr(1)};
    const auto clean = [&](std::vector<std::string> options) {
        options.insert(options.begin(), names.begin(), names.end());
        options.insert(options.begin(), "clean");
        return RunQev(options);
    };
    EXPECT_THAT(clean({"--dry-run"}).out,
                testing::ContainsRegex("ring " + ring.Name() +
                                       ": [0-9.]+ KiB, [0-9]+ s old, 1 packet, 31 bytes in it\n"));
    EXPECT_TRUE(Exists(ring.Path()));
    EXPECT_THAT(clean({}).err, HasSubstr("there is no terminal to ask on"));
    EXPECT_TRUE(Exists(ring.Path()));
    const CommandResult late = clean({"--older-than", "3600", "--yes"});
    EXPECT_EQ(late.status, 1);
    EXPECT_EQ(late.out, "");
    EXPECT_TRUE(Exists(ring.Path()));
    const CommandResult result = clean({"--yes"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("3 objects removed, "));
    EXPECT_FALSE(Exists(ring.Path()));
    EXPECT_FALSE(Exists(block.LockPath()));
    EXPECT_FALSE(Exists("/dev/shm/sem." + names[2]));
}

TEST(Clean, KeepsWhatIsInUse) {
    const RestingRing ring;
    const auto user = ring.Open(0);
    const UniqueBlockName block;
    const SharedMemoryBlockWriter writer(block.Name(), 16);
    const CommandResult result = RunQev({"clean", ring.Name(), block.Name(), "--yes"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("ring " + ring.Name() + " is kept: process "));
    EXPECT_THAT(result.err, HasSubstr("block " + block.Name() + " is kept: process "));
    EXPECT_TRUE(Exists(ring.Path()));
    EXPECT_TRUE(Exists(block.LockPath()));
}

TEST(Clean, KeepsWhatAHiddenProcessUses) {
    const RestingRing ring;
    const auto user = ring.Open(0);
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);
    const CommandResult result = RunQev({"clean", ring.Name(), "--yes"}, {-1, -1, -1, true});
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is kept: "));
    EXPECT_TRUE(Exists(ring.Path()));
}

TEST(Clean, RemovesUnaskedOnlyWhatWasARing) {
    const UniqueRingName reserved;
    WriteFile(reserved.Path(), std::string(4096, '\0'));
    const UniqueRingName other;
    WriteFile(other.Path(), std::string(4096, 'x'));
    const RestingRing ring;
    const std::string listed = RunQev({"clean", "--dry-run"}).out;
    EXPECT_THAT(listed, HasSubstr("ring " + ring.Name() + ":"));
    EXPECT_THAT(listed, Not(HasSubstr(reserved.Name() + ":")));
    EXPECT_THAT(listed, Not(HasSubstr(other.Name() + ":")));
    EXPECT_EQ(RunQev({"clean", other.Name(), "--yes"}).status, 0);
    EXPECT_FALSE(Exists(other.Path()));
}

}  // namespace
}  // namespace qel::test
