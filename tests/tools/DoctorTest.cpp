#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "BlockHolder.h"
#include "ChildProcess.h"
#include "Command.h"
#include "NodeClaim.h"
#include "ProcessState.h"
#include "RestingRing.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "SystemSemaphore.h"
#include "UniqueBlockName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

CommandResult Doctor(const std::string& name, std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"doctor", name});
    return RunQev(more);
}

TEST(Doctor, RingThatNobodyUsesIsSound) {
    const RestingRing ring;
    const CommandResult result = Doctor(ring.Name());
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith("sound    ring " + ring.Name() +
                                       ": 4.0 KiB, 2 nodes or more, used by nobody"));
    EXPECT_THAT(result.out, HasSubstr("0 faults, 0 warnings, 0 notes\n"));
    EXPECT_EQ(result.err, "");
}

TEST(Doctor, RingInUseTellsItsNodesAndUsers) {
    const RestingRing ring;
    const auto writer = ring.Open(0);
    const NodeClaim claim(ring.Name(), 0);
    const auto sink = ring.Open(1);
    const NodeClaim other(ring.Name(), 1);
    EXPECT_THAT(Doctor(ring.Name()).out, StartsWith("sound    ring " + ring.Name() +
                                                    ": 4.0 KiB, 2 nodes, used by 1 process\n"));
}

TEST(Doctor, DeathOfTheWriterIsNamedWithTheCommandThatMendsIt) {
    const RestingRing ring;
    ring.Write("hello");
    ring.LeaveStaleIndex(kRecord);
    const CommandResult result = Doctor(ring.Name());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("ring " + ring.Name() +
                                      ": the writer died after it handed on a record: wIdx[0] is "
                                      "0, 31 bytes behind"));
    EXPECT_THAT(result.out, HasSubstr("\n         mend: qev repair " + ring.Name() + "\n"));
}

TEST(Doctor, SaysTheSameAsJson) {
    const RestingRing ring;
    ring.Write("hello");
    ring.LeaveStaleIndex(kRecord);
    const CommandResult result = Doctor(ring.Name(), {"--json"});
    EXPECT_EQ(result.status, 1);
    const auto json = nlohmann::json::parse(result.out);
    ASSERT_EQ(json["objects"].size(), 1U);
    EXPECT_EQ(json["objects"][0]["object"], "ring " + ring.Name());
    EXPECT_EQ(json["objects"][0]["sound"], false);
    EXPECT_EQ(json["objects"][0]["findings"][0]["code"], "record-handed-on");
    EXPECT_EQ(json["objects"][0]["findings"][0]["mend"], "qev repair " + ring.Name());
}

TEST(Doctor, MissingLimitIsAFaultOnlyIfOneIsAskedFor) {
    const RestingRing ring;
    EXPECT_EQ(Doctor(ring.Name()).status, 0);
    EXPECT_EQ(Doctor(ring.Name(), {"--max-frames", "0"}).status, 0);
    const CommandResult result = Doctor(ring.Name(), {"--max-frames", "3"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("maxPackets is 0, and with --max-frames 3 it is 4"));
}

TEST(Doctor, RingThatWasRemovedInUseIsTold) {
    const RestingRing ring;
    const auto writer = ring.Open(0);
    ASSERT_EQ(unlink(ring.Path().c_str()), 0);
    EXPECT_THAT(Doctor(ring.Name()).out, HasSubstr("it was removed in use"));
    const auto other = ring.Open(1);
    const CommandResult result = Doctor(ring.Name());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("uses a file of this name that is not " + ring.Path()));
}

/// What `doctor` finds of all objects that this process uses.
std::vector<nlohmann::json> FindingsOfThisProcess() {
    const auto json = nlohmann::json::parse(RunQev({"doctor", "--json"}).out);
    std::vector<nlohmann::json> found;
    for (const auto& object : json["objects"]) {
        for (const auto& finding : object["findings"]) {
            const std::string text = finding["text"];
            if (text.find("process " + std::to_string(getpid()) + " ") != std::string::npos) {
                found.push_back(finding);
            }
        }
    }
    return found;
}

TEST(Doctor, SemaphoreThatItsMakerHasOpenIsSound) {
    // The C library makes it under a name of its own, by which the maker is known to have mapped
    // it.
    const UniqueSemaphoreName name;
    const SystemSemaphore semaphore(name.Name(), SystemSemaphore::IfMissing::Create);
    EXPECT_EQ(Doctor(name.Name().substr(1)).status, 0);
    EXPECT_THAT(FindingsOfThisProcess(), testing::IsEmpty());
}

TEST(Doctor, SemaphoreThatWasRemovedInUseIsANote) {
    const UniqueSemaphoreName name;
    const SystemSemaphore semaphore(name.Name(), SystemSemaphore::IfMissing::Create);
    ASSERT_EQ(sem_unlink(name.Name().c_str()), 0);
    const auto found = FindingsOfThisProcess();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]["severity"], "note");
    EXPECT_EQ(found[0]["code"], "removed");
}

TEST(Doctor, RingThatWasCutUnderItsUsersIsTold) {
    const RestingRing ring;
    const auto writer = ring.Open(0);
    ASSERT_EQ(truncate(ring.Path().c_str(), 160), 0);
    const CommandResult result = Doctor(ring.Name());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("the first access to the rest ends the process"));
}

TEST(Doctor, BlockOfWhichOthersHaveTheOldOneIsAFault) {
    const UniqueBlockName name;
    BlockHolder holder({"block", "write", name.Name(), "--size", "12"});
    EXPECT_EQ(Doctor(name.Name()).status, 0);
    EXPECT_THAT(Doctor(name.Name()).out, HasSubstr("qev seal " + name.Name()));
    const SharedMemoryBlockReader reader(name.Name());
    holder.Process().Signal(SIGKILL);
    (void)holder.Process().Wait();
    const CommandResult result = Doctor(name.Name());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("still has the old block: nobody else can open it"));
    EXPECT_THAT(result.out, HasSubstr("mend: start a writer with a size"));
}

TEST(Doctor, BlockThatNobodyHasIsOnlyWorthANote) {
    const UniqueBlockName name;
    {
        BlockHolder holder({"block", "write", name.Name(), "--size", "12"});
        holder.Process().Signal(SIGINT);
        (void)holder.Process().Wait();
    }
    const CommandResult result = Doctor(name.Name());
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("note     block " + name.Name() + ": its creator, process"));
}

TEST(Doctor, LockFileOfAnotherLengthIsTold) {
    const UniqueBlockName name;
    WriteFile(name.LockPath(), std::string(39, '\0'));
    EXPECT_EQ(Doctor(name.Name()).status, 1);
    EXPECT_THAT(Doctor(name.Name()).out, HasSubstr("its lock file has 39 bytes, not 40"));
    WriteFile(name.LockPath(), "");
    EXPECT_EQ(Doctor(name.Name()).status, 0);
}

TEST(Doctor, LockFileThatWasReplacedInUseIsTold) {
    const UniqueBlockName name;
    const SharedMemoryBlockWriter writer(name.Name(), 16);
    const std::string content = ReadFile(name.LockPath());
    ASSERT_EQ(unlink(name.LockPath().c_str()), 0);
    WriteFile(name.LockPath(), content);
    const CommandResult result = Doctor(name.Name());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("uses a file of this name that is not " + name.LockPath()));
}

TEST(Doctor, LockThatAStoppedProcessHoldsIsTold) {
    const UniqueBlockName name;
    WriteFile(name.LockPath(), std::string(40, '\0'));
    const ChildProcess locker([&](const Conversation& parent) {
        const ForeignLock lock(name.LockPath(), LOCK_EX);
        parent.Say("locked");
        (void)parent.Hear();
        return 0;
    });
    EXPECT_EQ(locker.Hear(), "locked");
    EXPECT_EQ(Doctor(name.Name()).status, 0);
    ASSERT_EQ(kill(locker.Pid(), SIGSTOP), 0);
    siginfo_t stopped{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(locker.Pid()), &stopped, WSTOPPED), 0);
    const CommandResult result = Doctor(name.Name());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("has locked it to write: all others wait\n         mend: "
                                      "kill -CONT " +
                                      std::to_string(locker.Pid())));
}

TEST(Doctor, DamagedSemaphoreIsAFault) {
    const UniqueSemaphoreName name;
    const std::string bare = name.Name().substr(1);
    EXPECT_EQ(RunQev({"sem", "post", name.Name()}).status, 0);
    EXPECT_THAT(Doctor(bare).out, HasSubstr("sound    semaphore " + bare + ": value 1"));
    WriteFile("/dev/shm/sem." + bare, "short");
    const CommandResult result = Doctor(bare);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("its file has 5 bytes, not 32"));
    WriteFile("/dev/shm/sem." + bare, std::string(32, '\xff'));
    EXPECT_THAT(Doctor(bare).out,
                HasSubstr("its value is 4294967295, and none is above 2147483647"));
}

TEST(Doctor, ObjectThatIsTooShortForARingIsCalledThatByAllVerbs) {
    const UniqueRingName name;
    WriteFile(name.Path(), "short");
    const std::string text = "its object has 5 bytes, a ring more than 152";
    EXPECT_THAT(Doctor(name.Name()).out, HasSubstr("fault    ring " + name.Name() + ": " + text));
    EXPECT_EQ(RunQev({"repair", name.Name()}).err, "qev repair: ring " + name.Name() +
                                                       " was not changed: " + text +
                                                       "; try qev clean " + name.Name() + "\n");
    const std::string listed = RunQev({"ls"}).out;
    const std::string line = listed.substr(listed.find(name.Name()));
    EXPECT_THAT(line.substr(0, line.find('\n')), HasSubstr(" desynchronised "));
}

TEST(Doctor, NameThatShellsWouldNotTakeIsQuotedInWhatMendsIt) {
    const UniqueRingName plain;
    const std::string path = "/dev/shm/" + plain.Name() + "\n.shm";
    WriteFile(path, "short");
    EXPECT_THAT(Doctor(plain.Name() + "\n").out,
                HasSubstr("mend: qev clean $'" + plain.Name() + "\\012'\n"));
    EXPECT_EQ(unlink(path.c_str()), 0);
}

TEST(Doctor, WhatIsNotThereIsAnError) {
    const CommandResult result = Doctor("qev-test-no-such-object");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "qev doctor: there is no ring, block or semaphore qev-test-no-such-object\n");
    EXPECT_EQ(RunQev({"doctor", "--nodes", "3"}).status, 2);
    EXPECT_EQ(RunQev({"doctor", "a", "--nodes", "6"}).status, 2);
}

TEST(Doctor, WithoutNamesLooksAtAllAndTheMachine) {
    const RestingRing ring;
    const CommandResult result = RunQev({"doctor"});
    EXPECT_THAT(result.out, HasSubstr("ring " + ring.Name() + ":"));
    EXPECT_THAT(result.out, HasSubstr(" machine"));
}

TEST(Doctor, WhatThisUserMayNotSeeIsSaid) {
    const RestingRing ring;
    ring.Write("hello");
    const auto sink = ring.Open(1);
    // Held by a process that hides itself.
    ASSERT_EQ(sink->ReadNextPacket().status, SMStatusCode::SUCCESS);
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);
    const CommandResult result = RunQev({"doctor", ring.Name()}, {-1, -1, -1, true});
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(result.out, HasSubstr("used by nobody that can be seen"));
    EXPECT_THAT(result.out, HasSubstr("hidden from this user"));
}

}  // namespace
}  // namespace qel::test
