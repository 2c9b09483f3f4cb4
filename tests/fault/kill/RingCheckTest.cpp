// What no death leaves, and what is told of the processes of a ring.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "ChildProcess.h"
#include "Files.h"
#include "Naming.h"
#include "RingCheckFixture.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(CheckOfARing, ThatIsSoundFindsNothing) {
    EXPECT_THAT(Codes(), IsEmpty());
    Write(1);
    EXPECT_THAT(Codes(), IsEmpty());
    Take(*middle_, true);
    Take(*sink_, true);
    EXPECT_THAT(Codes(), IsEmpty());
    ring_.Clear();  // fresh
    EXPECT_THAT(Codes(), IsEmpty());
}

TEST_F(CheckOfARing, NamesWhatNoRingCanHave) {
    const struct {
        const char* code;
        std::function<void(ControlBlock&)> forge;
    } rows[] = {
        {"outside-ring", [](auto& control) { control.wIdx[0].store(kSize); }},
        {"outside-ring", [](auto& control) { control.rIdx[4].store(~std::uint64_t{0}); }},
        {"outside-ring", [](auto& control) { control.avail[3].store(kSize + 1); }},
        {"unused-fields", [](auto& control) { control.reserved1[1] = 1; }},
        {"unused-fields", [](auto& control) { control.reserved2[3] = 1; }},
        {"unused-fields", [](auto& control) { control.wIdx[2].store(1); }},
        {"unused-fields", [](auto& control) { control.rIdx[0].store(1); }},
        {"unused-fields", [](auto& control) { control.initialised.store(2); }},
        {"size-differs", [](auto& control) { control.halfSize = kSize; }},
        {"size-differs", [](auto& control) { control.quarterSize = 0; }},
        {"used-uninitialised", [](auto& control) { control.initialised.store(0); }},
        {"count-low", [](auto& control) { control.numPackets.store(1); }},
        {"count-high", [](auto& control) { control.numPackets.store(9); }},
        {"count-without-limit", [](auto& control) { control.maxPackets = 0; }},
        {"indices-contradict", [](auto& control) { control.wIdx[0].fetch_add(7); }},
        {"counter-contradicts", [](auto& control) { control.avail[2].fetch_add(300); }},
        {"counter-contradicts", [](auto& control) { control.avail[0].fetch_add(1); }},
        {"counter-contradicts", [](auto& control) { control.avail[4].store(1); }},
    };
    Write(1);
    Write(2);
    Write(3);
    Take(*middle_, true);
    const RingImage::Bytes sound = ring_.Save();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.code);
        ring_.Restore(sound);
        row.forge(Control());
        RingCheckOptions options;
        options.judge.nodes = 3;
        EXPECT_THAT(Codes({}, options), ElementsAre(row.code));
    }
}

TEST_F(CheckOfARing, NamesRecordsThatMakeNoSense) {
    Write(1);
    RingImage::Bytes bytes = ring_.Save();
    bytes.at(sizeof(ControlBlock)) = 99;  // of a length of 100
    ring_.Restore(bytes);
    EXPECT_THAT(Codes(), ElementsAre("records-damaged"));
    EXPECT_THAT(Codes(AllBut(9, 2, sleeper_.Pid())), ElementsAre("records-damaged"));
    EXPECT_THAT(Check().front().mend, HasSubstr("qev clean"));
}

TEST_F(CheckOfARing, LooksAtTheLimitOnlyIfAsked) {
    RingCheckOptions options;
    options.maxFrames = kMaxFrames;
    EXPECT_THAT(Codes({}, options), IsEmpty());
    options.maxFrames = 7;
    EXPECT_THAT(Codes({}, options), ElementsAre("limit-differs"));
    options.maxFrames = 0;
    EXPECT_THAT(Codes({}, options), ElementsAre("limit-differs"));
    Control().maxPackets = 0;
    EXPECT_THAT(Codes({}, options), IsEmpty());
    options.maxFrames = kMaxFrames;
    EXPECT_THAT(Codes({}, options), ElementsAre("limit-missing"));
}

TEST_F(CheckOfARing, BytesOfANodeThatMayBeThereAreNotLost) {
    Write(1);
    Take(*middle_, true);
    Take(*sink_, false);
    EXPECT_THAT(Codes(), ElementsAre("bytes-lost"));
    EXPECT_THAT(Codes(AllBut(9, 2, sleeper_.Pid())), IsEmpty());
    EXPECT_THAT(Codes(AllBut(2, 2, sleeper_.Pid())), ElementsAre("bytes-lost"));
    RingUsers unknown;
    unknown.users.push_back({sleeper_.Pid(), 0, "bare", 'S', true, {}, true});
    EXPECT_THAT(Codes(unknown), IsEmpty());
    for (const bool seesAll : {false, true}) {
        RingUsers hidden;
        hidden.hidden = 1;
        hidden.seesAll = seesAll;
        const auto findings = Check(hidden);
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].severity, Severity::Note);
        EXPECT_THAT(findings[0].text, HasSubstr("; or somebody holds them: "));
    }
}

TEST_F(CheckOfARing, WhoIsStoppedInTheMiddleIsToldFromTheDead) {
    Write(1);
    Control().wIdx[0].store(0);  // as in the middle of the write
    RingUsers users = AllBut(9, 2, sleeper_.Pid());
    ASSERT_EQ(::kill(sleeper_.Pid(), SIGSTOP), 0);
    siginfo_t stopped{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(sleeper_.Pid()), &stopped, WSTOPPED | WNOWAIT), 0);
    const auto findings = Check(users);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].code, "record-handed-on");
    EXPECT_EQ(findings[0].severity, Severity::Warning);
    EXPECT_THAT(findings[0].text, HasSubstr("is stopped in the middle of it"));
    EXPECT_THAT(findings[0].mend, HasSubstr("kill -CONT " + std::to_string(sleeper_.Pid())));
    ASSERT_EQ(::kill(sleeper_.Pid(), SIGCONT), 0);
    // Another who claims another node cannot be in the middle of a write.
    users = AllBut(0, 2, sleeper_.Pid());
    EXPECT_EQ(Check(users).front().severity, Severity::Fault);
}

/// A process that is in no system call that a signal interrupts, and is not run: it waits for one
/// that it has forked so.
int NotRun(const Conversation& /*parent*/) {
    if (::syscall(SYS_clone, CLONE_VFORK | SIGCHLD, nullptr, nullptr, nullptr, nullptr) == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            ::pause();
        }
    }
    return 0;
}

TEST_F(CheckOfARing, WhoIsMerelyNotRunIsToldFromTheDead) {
    const ChildProcess other(NotRun);
    const std::string stat = "/proc/" + std::to_string(other.Pid()) + "/stat";
    while (ReadFile(stat).find(") D ") == std::string::npos) {
        ::sched_yield();
    }
    Write(1);
    Control().wIdx[0].store(0);
    const auto findings = Check(AllBut(9, 2, other.Pid()));
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].severity, Severity::Note);
    EXPECT_THAT(findings[0].text, HasSubstr("has not been run meanwhile: look again"));
}

TEST_F(CheckOfARing, HiddenProcessesMakeADeathUncertain) {
    Write(1);
    Control().wIdx[0].store(0);
    RingUsers hidden;
    hidden.hidden = 12;
    const auto findings = Check(hidden);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].severity, Severity::Warning);
    EXPECT_THAT(findings[0].text, HasSubstr("12 processes are hidden from this user"));
}

TEST_F(CheckOfARing, WhoComesWhileNobodySeemedToBeThereIsTakenIntoAccount) {
    Write(1);
    Take(*middle_, false);
    RingCheckOptions options;
    options.judge.lookAgain = [&] { return AllBut(9, 2, sleeper_.Pid()); };
    EXPECT_THAT(Codes({}, options), IsEmpty());
}

TEST_F(CheckOfARing, DeviationThatDoesNotStayIsNone) {
    Write(1);
    Write(2);
    const RingImage::Bytes sound = ring_.Save();
    for (const std::uint64_t place : {0U, 126U}) {
        ring_.Restore(sound);
        Control().wIdx[0].store(126);  // behind the first
        int pauses = 0;
        RingCheckOptions options;
        options.judge.patience.pause = [&](auto) {
            if (++pauses == 19) {  // the next step, or another write in the middle
                Control().wIdx[0].store(place == 0 ? 252 : 126);
                Control().avail[1].fetch_sub(place);
                Control().avail[0].fetch_add(place);
                Control().numPackets.store(place == 0 ? 2 : 1);
            }
        };
        EXPECT_THAT(CheckRing(ring_.File(), AllBut(9, 2, sleeper_.Pid()), options), IsEmpty());
        EXPECT_GE(pauses, 19);
    }
}

TEST_F(CheckOfARing, MissingNodeForWhichBytesWaitIsNamed) {
    Write(1);
    const auto findings = Check(AllBut(1, 2, sleeper_.Pid()));
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].code, "node-missing");
    EXPECT_EQ(findings[0].text, "node 1 is not there, and 126 bytes wait for it");
    EXPECT_THAT(Codes(AllBut(2, 2, sleeper_.Pid())), IsEmpty());
}

TEST_F(CheckOfARing, HealthIsTheSameInOneWord) {
    EXPECT_EQ(HealthOf(ring_.File(), {}), RingHealth::Sound);
    Write(1);
    const RingImage::Bytes sound = ring_.Save();
    Control().wIdx[0].store(0);
    EXPECT_EQ(HealthOf(ring_.File(), {}), RingHealth::Desynchronised);
    Control().wIdx[0].store(5);
    EXPECT_EQ(HealthOf(ring_.File(), {}), RingHealth::Damaged);
    ring_.Clear();
    EXPECT_EQ(HealthOf(ring_.File(), {}), RingHealth::Sound);
    Control().initialised.store(1);
    EXPECT_EQ(HealthOf(ring_.File(), {}), RingHealth::NeverInitialised);
    ring_.Restore(sound);
    EXPECT_EQ(HealthOf(ring_.File(), {}), RingHealth::Sound);
}

}  // namespace
}  // namespace qel::test
