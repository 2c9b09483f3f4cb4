#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>

#include "ChildProcess.h"
#include "MockPacketBuffer.h"
#include "NodeClaim.h"
#include "OpenRing.h"
#include "RingError.h"
#include "RingObject.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 100000;

SharedBufferIF::BufferInfo Info(const UniqueRingName& name, std::uint8_t node, bool sink) {
    return {name.Name(), kSize, node, sink, 0};
}

std::string RefusalOf(const SharedBufferIF::BufferInfo& info) {
    try {
        (void)OpenRing(info);
    } catch (const std::invalid_argument& refusal) {
        return refusal.what();
    }
    return "";
}

TEST(OpenRing, MakesTheObjectWithItsMemoryAndLeavesIt) {
    const UniqueRingName name;
    (void)OpenRing(Info(name, 0, false));
    struct stat status {};
    ASSERT_EQ(stat(name.Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(kSize + 152));
    EXPECT_GE(status.st_blocks * 512, status.st_size);
}

TEST(OpenRing, SecondNodeReadsWhatTheFirstWrote) {
    const UniqueRingName name;
    const auto producer = OpenRing(Info(name, 0, false));
    const OwnedPacket packet(10, 7);
    ASSERT_EQ(producer->WritePacket(packet.Get()), SMStatusCode::SUCCESS);
    const auto sink = OpenRing(Info(name, 1, true));
    const auto read = sink->ReadNextPacket();
    ASSERT_EQ(read.status, SMStatusCode::SUCCESS);
    const std::int64_t pts = read.packet.header.pts;
    EXPECT_EQ(pts, 7);
}

TEST(OpenRing, OpensTheFreshObjectThatWasMadeBeforehand) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kSize);
    const auto producer = OpenRing(Info(name, 0, false));
    EXPECT_EQ(producer->WritePacket(OwnedPacket(10).Get()), SMStatusCode::SUCCESS);
}

TEST(OpenRing, RefusesAnObjectOfAnotherSizeAndLeavesItAsItIs) {
    const UniqueRingName name;
    const auto producer = OpenRing(Info(name, 0, false));
    auto other = Info(name, 1, true);
    other.shmSize = kSize - 1;
    EXPECT_EQ(RefusalOf(other),
              "ring " + name.Name() + " exists with a size of 100000 bytes, not 99999");
    EXPECT_EQ(RingObject::FindSize(name.Name()), kSize);
}

TEST(OpenRing, RefusesAFileThatIsNoRingAndLeavesItAsItIs) {
    const UniqueRingName name;
    std::ofstream(name.Path()) << "not a ring";
    EXPECT_EQ(RefusalOf(Info(name, 0, false)),
              "ring " + name.Name() + " exists with a size of 0 bytes, not 100000");
    struct stat status {};
    ASSERT_EQ(stat(name.Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 10);
}

TEST(OpenRing, RefusesWhatNoRingCanHaveBeforeAnythingIsMade) {
    const UniqueRingName name;
    EXPECT_EQ(RefusalOf(Info(name, 5, true)), "node 5 is not in 0 to 4");
    EXPECT_EQ(RefusalOf(Info(name, 4, false)), "node 4 is the last and must be the sink");
    auto empty = Info(name, 0, false);
    empty.shmSize = 0;
    EXPECT_EQ(RefusalOf(empty), "the size of a ring must not be 0");
    EXPECT_EQ(RefusalOf({"a/b", kSize, 0, false, 0}),
              "the name of a ring must not contain a slash: a/b");
    EXPECT_EQ(RingObject::FindSize(name.Name()), std::nullopt);
}

TEST(OpenRing, ShortMemoryIsAnErrorAndLeavesNothing) {
    const UniqueRingName name;
    auto huge = Info(name, 0, false);
    huge.shmSize = std::uint64_t{1} << 60U;
    EXPECT_THROW((void)OpenRing(huge), RingError);
    EXPECT_EQ(RingObject::FindSize(name.Name()), std::nullopt);
}

/// True if some process waits for the lock of the file with `inode`.
bool IsWaitedFor(ino_t inode) {
    std::ifstream locks("/proc/locks");
    const std::string mark = ":" + std::to_string(inode) + " ";
    for (std::string line; std::getline(locks, line);) {
        if (line.find("-> FLOCK") != std::string::npos && line.find(mark) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(OpenRing, WaitsForWhoeverIsMakingTheRing) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kSize);
    const int maker = open(name.Path().c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    ASSERT_EQ(fstat(maker, &status), 0);
    ASSERT_EQ(flock(maker, LOCK_EX), 0);
    std::atomic<bool> opened{false};
    std::thread comer([&] {
        (void)OpenRing(Info(name, 0, false));
        opened = true;
    });
    while (!opened && !IsWaitedFor(status.st_ino)) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(opened);
    ASSERT_EQ(close(maker), 0);  // gives the lock back
    comer.join();
    EXPECT_TRUE(opened);
}

TEST(OpenRing, WhoeverComesFirstAllSeeThePacketLimit) {
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        const UniqueRingName name;
        std::array<std::uint32_t, 4> limits{};
        std::array<std::thread, 4> openers;
        for (std::size_t node = 0; node < openers.size(); ++node) {
            openers[node] = std::thread([&, node] {
                auto info = Info(name, static_cast<std::uint8_t>(node), false);
                info.maxFrames = 6;
                limits[node] = OpenRing(info)->GetCurrentCapacity().maxPackets;
            });
        }
        for (std::thread& opener : openers) {
            opener.join();
        }
        EXPECT_THAT(limits, testing::Each(7));
    }
}

/// Asks by a lease who uses the ring, and gives it back when somebody comes.
int AskByLease(const UniqueRingName& name, const Conversation& test) {
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGURG);
    (void)sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int file = open(name.Path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fcntl(file, F_SETSIG, SIGURG) != 0 || fcntl(file, F_SETLEASE, F_RDLCK) != 0) {
        test.Say("refused");
        return 0;
    }
    test.Say("asks");
    (void)sigwaitinfo(&signals, nullptr);
    return fcntl(file, F_SETLEASE, F_UNLCK);
}

TEST(OpenRing, WaitsWhileSomebodyAsksWhoUsesTheRing) {
    const UniqueRingName name;
    (void)OpenRing(Info(name, 0, false));
    const std::function<void()> openers[] = {[&] { (void)OpenRing(Info(name, 0, false)); },
                                             [&] { const NodeClaim claim(name.Name(), 1); }};
    for (const auto& open : openers) {
        ChildProcess asker([&](const Conversation& test) { return AskByLease(name, test); });
        if (asker.Hear() == "refused") {
            GTEST_SKIP() << "no leases here";
        }
        EXPECT_NO_THROW(open());
        EXPECT_EQ(asker.Wait(), 0);
    }
}

}  // namespace
}  // namespace qel::test
