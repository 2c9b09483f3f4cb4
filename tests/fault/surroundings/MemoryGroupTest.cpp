// A control group with less memory than what is made in it, as a container has. The memory of
// blocks and rings counts there when it is first touched, and the kernel kills who exceeds it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Attempts.h"
#include "Fate.h"
#include "PopulateRing.h"
#include "RingObject.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

// Small: a container's /dev/shm has 64 MiB.
constexpr std::uint64_t kLimit = 16U << 20U;
constexpr std::uint64_t kTooMuch = 2 * kLimit;

bool Put(const std::string& path, const std::string& value) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool done =
        ::write(file, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    ::close(file);
    return done;
}

/// A control group of its own, by either version of their interface.
class MemoryGroup {
public:
    MemoryGroup() {
        const std::string name = "/qev-test-" + std::to_string(::getpid());
        const std::string limit = std::to_string(kLimit);
        path_ = "/sys/fs/cgroup" + name;
        isLimited_ = ::mkdir(path_.c_str(), 0755) == 0 && Put(path_ + "/memory.max", limit) &&
                     (Put(path_ + "/memory.swap.max", "0") || true);
        if (!isLimited_) {
            ::rmdir(path_.c_str());
            path_ = "/sys/fs/cgroup/memory" + name;
            isLimited_ = ::mkdir(path_.c_str(), 0755) == 0 &&
                         Put(path_ + "/memory.limit_in_bytes", limit) &&
                         (Put(path_ + "/memory.memsw.limit_in_bytes", limit) || true);
        }
    }
    ~MemoryGroup() { ::rmdir(path_.c_str()); }
    MemoryGroup(const MemoryGroup&) = delete;
    MemoryGroup& operator=(const MemoryGroup&) = delete;

    /// What `attempt` says to a process in the group.
    template <typename Attempt>
    [[nodiscard]] std::string Within(Attempt attempt) const {
        return FateOf([&]() -> std::string {
            if (!isLimited_ || !Put(path_ + "/cgroup.procs", std::to_string(::getpid()))) {
                return Skip("this process may not have a control group of its own");
            }
            return attempt();
        });
    }

private:
    std::string path_;
    bool isLimited_ = false;
};

TEST(AMemoryGroup, HasAWriterKilledThatMakesTooLargeABlockAndItsRecordIsFoundStale) {
    const UniqueBlockName name;
    const MemoryGroup group;
    const std::string fate = group.Within([&] { return TryWriter(name.Name(), kTooMuch); });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate, "killed by Killed");
    EXPECT_EQ(TryReader(name.Name()), "failed to open shared memory: file does not exist");
    EXPECT_EQ(TryWriter(name.Name()), "works");
}

TEST(AMemoryGroup, LetsABlockBeMadeThatFits) {
    const UniqueBlockName name;
    const MemoryGroup group;
    const std::string fate = group.Within([&] { return TryWriter(name.Name(), kLimit / 4); });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate, "works");
}

// Not even a reservation is an error then; but nobody is killed later, in the middle of a packet.
TEST(AMemoryGroup, HasWhoeverReservesTooLargeARingKilled) {
    const UniqueRingName name;
    const MemoryGroup group;
    const std::string fate = group.Within([&] { return TryOpenRing(name.Name(), kTooMuch); });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate, "killed by Killed");
}

// What counts is who touches a page first.
TEST(AMemoryGroup, LetsARingBeUsedThatSomebodyOutsideHasReserved) {
    const UniqueRingName name;
    const RingObject object(name.Name(), kTooMuch);
    const MemoryGroup group;
    const std::string fate = group.Within([&] {
        return Result([&] {
            const auto ring = OpenRing({name.Name(), kTooMuch, 0});
            PopulateRing(*ring, kTooMuch);
        });
    });
    QEV_SKIP_IF_SAID(fate);
    EXPECT_EQ(fate, "works");
}

}  // namespace
}  // namespace qel::test
