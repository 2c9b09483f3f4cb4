// Five processes as the nodes of a chain, with a block and semaphores beside their ring, all opened
// and closed again and again. The short form takes a few seconds; QEV_SOAK_SECONDS sets a time, and
// QEV_SOAK_RATE keeps the packets per second down.

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "CapturedLog.h"
#include "ChildProcess.h"
#include "SharedMemLibFactory.h"
#include "SoakNode.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"
#include "process/SegmentFile.h"

namespace qel::test {
namespace {

constexpr std::time_t kMinute = 60;

/// True for a process that has ended, whether or not it has been waited for.
bool HasEnded(const ChildProcess& child) {
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(child.Pid()), &ended, WEXITED | WNOHANG | WNOWAIT) ==
               -1 ||
           ended.si_pid == child.Pid();
}

/// What stands in /dev/shm and /tmp under names of this process.
std::set<std::string> ObjectsLeft() {
    const std::string mine = "qev-test-" + std::to_string(::getpid()) + "-";
    std::set<std::string> found;
    for (const char* const directory : {"/dev/shm", "/tmp"}) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            if (entry.path().filename().string().find(mine) != std::string::npos) {
                found.insert(entry.path().string());
            }
        }
    }
    return found;
}

/// The time that this process's children and it have used, in seconds.
double ProcessorTime() {
    double seconds = 0;
    for (const int whose : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage usage {};
        ::getrusage(whose, &usage);
        for (const timeval& part : {usage.ru_utime, usage.ru_stime}) {
            seconds += static_cast<double>(part.tv_sec) + static_cast<double>(part.tv_usec) * 1e-6;
        }
    }
    return seconds;
}

/// The objects of one soak, removed with it.
struct Objects {
    UniqueRingName ring;
    UniqueBlockName block;
    UniqueSemaphoreName units;
    UniqueSemaphoreName gate;

    [[nodiscard]] SoakNames Names() const {
        return {ring.Name(), block.Name(), units.Name(), gate.Name()};
    }
    [[nodiscard]] std::set<std::string> Paths() const {
        return {ring.Path(), block.LockPath(), "/dev/shm/sem." + units.Name().substr(1),
                "/dev/shm/sem." + gate.Name().substr(1)};
    }
};

class Soak : public ::testing::Test {
protected:
    void RunNodes();
    void ExpectRest() const;
    void PrintProgress(int minutes) const;
    void PrintSummary() const;

    [[nodiscard]] std::uint64_t Sum(std::atomic<std::uint64_t> SoakFigures::*figure) const {
        std::uint64_t sum = 0;
        for (const SoakFigures& node : board_->nodes) {
            sum += node.*figure;
        }
        return sum;
    }
    [[nodiscard]] const SoakFigures& Sink() const { return board_->nodes.back(); }

    const SoakPlan plan_ = PlanFromEnvironment();
    const SoakPackets packets_{SoakRing("", 0).shmSize};
    const SharedBoard board_;
    const Objects objects_{};
    const CapturedLog log_;  // that a new block has no record yet is no news
};

/// Returns when all processes have ended; the first that fails ends the others.
void Soak::RunNodes() {
    // Blocked, so that none is missed between two looks.
    sigset_t childEnds;
    ::sigemptyset(&childEnds);
    ::sigaddset(&childEnds, SIGCHLD);
    ::pthread_sigmask(SIG_BLOCK, &childEnds, nullptr);
    std::deque<ChildProcess> children;
    for (unsigned node = 0; node < kSoakNodes; ++node) {
        children.emplace_back([this, node](const Conversation&) {
            try {
                SoakNode(objects_.Names(), packets_, plan_, node, *board_).Run();
            } catch (...) {
                board_->failed = true;
                throw;
            }
            return 0;
        });
    }
    const std::time_t start = std::time(nullptr);
    int minutes = 0;
    std::size_t running = children.size();
    while (running > 0) {
        const timespec second{1, 0};
        ::sigtimedwait(&childEnds, nullptr, &second);
        running = 0;
        for (ChildProcess& child : children) {
            if (!HasEnded(child)) {
                ++running;
            } else if (child.ExitCode() != 0) {
                board_->failed = true;
            }
        }
        if (std::time(nullptr) - start >= (minutes + 1) * kMinute) {
            PrintProgress(++minutes);
        }
    }
    for (unsigned node = 0; node < kSoakNodes; ++node) {
        EXPECT_EQ(children.at(node).ExitCode(), 0) << "node " << node;
    }
    ::pthread_sigmask(SIG_UNBLOCK, &childEnds, nullptr);
}

void Soak::ExpectRest() const {
    const SegmentFile segment(objects_.ring.Path());
    EXPECT_EQ(segment.Avail(0), segment.Length() - SegmentFile::kControlSize);
    EXPECT_EQ(segment.NumPackets(), 0U);
    for (unsigned node = 1; node < kSoakNodes; ++node) {
        EXPECT_EQ(segment.Avail(node), 0U) << "node " << node;
        EXPECT_EQ(segment.ReadIndex(node), segment.WriteIndex(0)) << "node " << node;
    }
    EXPECT_EQ(NamedSemaphore(objects_.units.Name(), 0).GetValue(), kSoakUnits);
    EXPECT_EQ(NamedSemaphore(objects_.gate.Name(), 0).GetValue(), 1);
    EXPECT_EQ(board_->taken, 0);
    EXPECT_EQ(ObjectsLeft(), objects_.Paths());
}

void Soak::PrintProgress(int minutes) const {
    std::printf("%3d min: %" PRIu64 " packets, %.2f GB, %" PRIu64 " laps, %" PRIu64
                " locks, %" PRIu64 " units, sink resident %" PRIu64 " KiB\n",
                minutes, Sink().packets.load(), static_cast<double>(Sink().bytes) / 1e9,
                Sink().fillers.load(), Sum(&SoakFigures::locks), Sum(&SoakFigures::units),
                Sink().resident / 1024);
    std::fflush(stdout);
}

void Soak::PrintSummary() const {
    std::printf("packets through all nodes      %" PRIu64
                "\n"
                "payload bytes                  %" PRIu64
                "\n"
                "laps of the ring (fillers)     %" PRIu64
                "\n"
                "locks of the block             %" PRIu64
                "\n"
                "semaphore units taken          %" PRIu64
                "\n"
                "openings of ring, block, semaphores   %" PRIu64 ", %" PRIu64
                " more tries met a block in between\n"
                "processor time                 %.1f s\n"
                "at a quarter of the time, and at the end:\n"
                "node  descriptors  mappings  threads  resident KiB    own KiB  heap bytes\n",
                Sink().packets.load(), Sink().bytes.load(), Sink().fillers.load(),
                Sum(&SoakFigures::locks), Sum(&SoakFigures::units), Sum(&SoakFigures::openings),
                Sum(&SoakFigures::refusals), ProcessorTime());
    for (unsigned node = 0; node < kSoakNodes; ++node) {
        for (const Resources& at :
             {board_->nodes.at(node).atQuarter, board_->nodes.at(node).last}) {
            std::printf("%4u  %11" PRIu64 "  %8" PRIu64 "  %7" PRIu64 "  %12" PRIu64 "  %9" PRIu64
                        "  %9" PRIu64 "\n",
                        node, at.descriptors, at.mappings, at.threads, at.resident / 1024,
                        at.own / 1024, at.heap);
        }
    }
    std::fflush(stdout);
}

TEST_F(Soak, LosesNothingAndHoldsNoMoreAtTheEnd) {
    if (!std::ifstream("/proc/self/smaps_rollup")) {
        GTEST_SKIP() << "the kernel does not tell a process's memory exactly";
    }
    // Made by one process: setting up the ring is not atomic as a whole.
    ASSERT_EQ(SharedMemLibFactory::Create()
                  ->GetSharedPacketBuffer(SoakRing(objects_.ring.Name(), 0))
                  .status,
              SMStatusCode::SUCCESS);
    RunNodes();
    if (HasFailure()) {
        return;  // what they have left tells no more
    }
    PrintSummary();
    for (const SoakFigures& node : board_->nodes) {
        EXPECT_EQ(node.packets, board_->nodes.front().packets);
        EXPECT_TRUE(node.judged);
    }
    if (plan_.packets != 0) {
        EXPECT_EQ(Sink().packets, plan_.packets);
    }
    EXPECT_GT(Sink().fillers, 0U);
    ExpectRest();
}

TEST(SoakObjects, AreGoneWhenTheSoakIsOver) {
    { const Objects objects{}; }
    EXPECT_EQ(ObjectsLeft(), std::set<std::string>{});
}

}  // namespace
}  // namespace qel::test
