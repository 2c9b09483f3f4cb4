#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "BlockHolder.h"
#include "ChildProcess.h"
#include "Command.h"
#include "NodeClaim.h"
#include "Pipe.h"
#include "RingObject.h"
#include "RingUnderTest.h"
#include "SystemSemaphore.h"
#include "UniqueBlockName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using testing::AnyOf;
using testing::Eq;
using testing::HasSubstr;
using testing::MatchesRegex;

using Json = nlohmann::json;

/// What the list says of one object; others may be there at the same time.
std::optional<Json> Listed(const std::string& kind, const std::string& name,
                           const Streams& streams = {}) {
    const CommandResult result = RunQev({"ls", "--json"}, streams);
    EXPECT_EQ(result.status, 0) << result.err;
    const Json list = Json::parse(result.out);
    for (const Json& object : list["objects"]) {
        if (object["kind"] == kind && object["name"] == name) {
            return object;
        }
    }
    return std::nullopt;
}

std::optional<Json> UserThatIsThis(const Json& object) {
    for (const Json& user : object["users"]) {
        if (user["pid"] == getpid()) {
            return user;
        }
    }
    return std::nullopt;
}

std::string Line(const std::string& name) {
    const std::string text = RunQev({"ls"}).out;
    const auto place = text.find(name + " ");
    if (place == std::string::npos) {
        return "";
    }
    const auto start = text.rfind('\n', place) + 1;
    return text.substr(start, text.find('\n', place) - start);
}

/// Nobody uses it, or not everybody can be seen.
testing::Matcher<Json> Unused() {
    return AnyOf(Eq(Json("orphaned")), Eq(Json("unseen")));
}

TEST(Ls, ShowsARingInUseWithItsFillItsPacketsAndWhoIsWhichNode) {
    const RingUnderTest ring(1, 6);
    ring.Write(0, 1224);
    const NodeClaim claim(ring.Name(), 1);
    const auto object = Listed("ring", ring.Name());
    ASSERT_TRUE(object);
    EXPECT_EQ((*object)["state"], "idle");
    EXPECT_EQ((*object)["size"], 5000);
    EXPECT_DOUBLE_EQ((*object)["fill"], 0.25);
    EXPECT_EQ((*object)["content"], "1/7");
    EXPECT_GE((*object)["age"], 0);
    const auto user = UserThatIsThis(*object);
    ASSERT_TRUE(user);
    EXPECT_EQ((*user)["nodes"], Json({1}));
    EXPECT_THAT(Line(ring.Name()),
                MatchesRegex("ring       " + ring.Name() +
                             " +idle +4.9 KiB   25 %           1/7 +[0-9]+ s  " + ".*" +
                             std::to_string(getpid()) + " .* \\(node 1\\).*"));
}

TEST(Ls, KnowsARingThatWorksFromOneThatRests) {
    RingUnderTest ring;
    ChildProcess chain([&](const Conversation& test) {
        test.Say("ready");
        for (std::int64_t number = 0;; ++number) {
            ring.Write(number, 100);
            for (auto next = ring.Node(1).ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
                 next = ring.Node(1).ReadNextPacket()) {
                (void)ring.Node(1).ReleasePacket(next.packet);
            }
        }
        return 0;
    });
    ASSERT_EQ(chain.Hear(), "ready");
    // By chance it may stand where it stood before.
    WaitUntil([&] { return (*Listed("ring", ring.Name()))["state"] == "live"; });
}

TEST(Ls, SaysThatNobodyUsesARing) {
    RingUnderTest ring;
    ring.Close();
    const auto object = Listed("ring", ring.Name());
    EXPECT_THAT((*object)["state"], Unused());
    EXPECT_FALSE(UserThatIsThis(*object)) << "others may be looking at it";
}

TEST(Ls, TellsFreshRingsNeverInitialisedOnesAndThoseWhoseFieldsAreNotOfARing) {
    const UniqueRingName name;
    const RingObject object(name.Name(), 5000);
    EXPECT_EQ((*Listed("ring", name.Name()))["state"], "fresh");
    const int file = open(name.Path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(pwrite(file, "\1", 1, 124), 1);
    EXPECT_EQ((*Listed("ring", name.Name()))["state"], "never initialised");
    ASSERT_EQ(pwrite(file, "\xff\xff", 2, 40), 2);
    EXPECT_EQ((*Listed("ring", name.Name()))["state"], "desynchronised");
    (void)close(file);
}

TEST(Ls, ShowsABlockItsCreatorAndThatItsRecordIsStaleOnceHeHasGone) {
    const UniqueBlockName name;
    {
        Pipe input;
        input.CloseIn();
        BlockHolder holder({"block", "write", name.Name(), "--size", "100"}, input.Out());
        const auto object = Listed("block", name.Name());
        ASSERT_TRUE(object);
        EXPECT_EQ((*object)["state"], "live");
        EXPECT_EQ((*object)["size"], 100);
        EXPECT_EQ((*object)["users"][0]["pid"], holder.Process().Pid());
        holder.Process().Signal(SIGTERM);
        (void)holder.Process().Wait();
    }
    EXPECT_EQ((*Listed("block", name.Name()))["state"], "stale record");
    WriteFile(name.LockPath(), "");
    EXPECT_EQ((*Listed("block", name.Name()))["state"], "no record");
}

TEST(Ls, ShowsASemaphoreItsValueAndWhoHasItOpen) {
    const UniqueSemaphoreName name;
    const std::string bare = name.Name().substr(1);
    {
        const SystemSemaphore semaphore(bare, SystemSemaphore::IfMissing::Create);
        semaphore.Post();
        semaphore.Post();
        const auto object = Listed("semaphore", bare);
        ASSERT_TRUE(object);
        EXPECT_EQ((*object)["state"], "live");
        EXPECT_EQ((*object)["content"], "value 2");
        EXPECT_EQ((*object)["users"][0]["pid"], getpid());
    }
    EXPECT_THAT((*Listed("semaphore", bare))["state"], Unused());
    ASSERT_EQ(truncate(SystemSemaphore::PathOf(bare).c_str(), 5), 0);
    EXPECT_EQ((*Listed("semaphore", bare))["state"], "damaged");
}

TEST(Ls, SaysOfWhatItMayNotReadWhyNot) {
    const RingUnderTest ring;
    ASSERT_EQ(chmod(ring.Path().c_str(), 0), 0);
    Streams streams;
    streams.withoutPrivileges = true;
    const auto object = Listed("ring", ring.Name(), streams);
    ASSERT_TRUE(object);
    EXPECT_EQ((*object)["state"], "unreadable");
    EXPECT_EQ((*object)["trouble"], "cannot read " + ring.Path() + ": 13(Permission denied)");
}

TEST(Ls, SaysHowManyProcessesItCannotSee) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "takes a process of another user";
    }
    const RingUnderTest ring;
    ChildProcess other([](const Conversation& test) {
        test.Say(setuid(65534) == 0 ? "ready" : "refused");
        (void)test.Hear();
        return 0;
    });
    ASSERT_EQ(other.Hear(), "ready");
    Streams streams;
    streams.withoutPrivileges = true;
    const std::string text = RunQev({"ls"}, streams).out;
    EXPECT_THAT(text, HasSubstr(" hidden from this user: what they use is not known\n"));
}

TEST(Ls, KeepsNamesOnOneLine) {
    const std::string name = "qev-test-line\n" + std::to_string(getpid());
    WriteFile("/dev/shm/" + name + ".shm", "");
    EXPECT_THAT(RunQev({"ls"}).out, HasSubstr("qev-test-line " + std::to_string(getpid())));
    (void)unlink(("/dev/shm/" + name + ".shm").c_str());
}

TEST(Ls, ShowsMoreRingsThanTheSoftLimitOfOpenFilesAllows) {
    constexpr rlim_t kFew = 24;
    std::vector<std::unique_ptr<RingUnderTest>> rings;
    for (rlim_t count = 0; count < kFew; ++count) {
        rings.push_back(std::make_unique<RingUnderTest>());
    }
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{kFew, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const std::string listed = RunQev({"ls", "--json"}).out;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    const Json list = Json::parse(listed);
    for (const auto& ring : rings) {
        EXPECT_TRUE(std::any_of(list["objects"].begin(), list["objects"].end(),
                                [&](const Json& object) {
                                    return object["name"] == ring->Name() &&
                                           object["state"] != "unreadable";
                                }))
            << ring->Name();
    }
}

}  // namespace
}  // namespace qel::test
