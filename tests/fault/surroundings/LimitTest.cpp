// A process that has no descriptors, no address space or no leave for long files left: what each
// construction reports, that it leaves nothing behind, and that it works once the limit is lifted.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <map>

#include "Attempts.h"
#include "Fate.h"
#include "Files.h"
#include "NodeChain.h"
#include "NodeClaim.h"
#include "ProcessState.h"
#include "RingError.h"
#include "RingObject.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

/// The names that one test uses.
struct Names {
    UniqueBlockName block;     ///< of a block that is there
    UniqueBlockName newBlock;  ///< of one that is not, though its lock file is
    UniqueBlockName newFile;   ///< of one that has no lock file either
    UniqueRingName ring;       ///< of a ring that is there
    UniqueRingName newRing;    ///< of one that is not
    UniqueSemaphoreName semaphore;
};

// More than the limits below, less than a container's /dev/shm of 64 MiB.
constexpr std::uint64_t kLargeSize = 24U << 20U;

using Attempt = std::string (*)(const Names&);

constexpr Attempt kOpenRing = [](const Names& names) { return TryRing(names.ring.Name()); };
constexpr Attempt kOpenRingWithKit = [](const Names& names) {
    return TryOpenRing(names.ring.Name());
};
constexpr Attempt kMakeRingObject = [](const Names& names) {
    return Result([&] { const RingObject object(names.newRing.Name(), kRingSize); });
};
constexpr Attempt kClaimNode = [](const Names& names) {
    return Result([&] { const NodeClaim claim(names.ring.Name(), 1); });
};
constexpr Attempt kStartNode = [](const Names& /*names*/) {
    return Result([] { const NodeChain chain({[] { return 0; }}); });
};
constexpr Attempt kReadBlock = [](const Names& names) { return TryReader(names.block.Name()); };
constexpr Attempt kAttachBlock = [](const Names& names) { return TryWriter(names.block.Name()); };
constexpr Attempt kMakeBlock = [](const Names& names) { return TryWriter(names.newBlock.Name()); };
constexpr Attempt kOpenSemaphore = [](const Names& names) {
    return TrySemaphore(names.semaphore.Name());
};
constexpr Attempt kOpenSemaphoreWithKit = [](const Names& names) {
    return TrySystemSemaphore(names.semaphore.Name());
};

constexpr Attempt kMakeLockFile = [](const Names& names) {
    return TryWriter(names.newFile.Name());
};
constexpr Attempt kOpenLargeRing = [](const Names& names) {
    return TryRing(names.ring.Name(), kLargeSize);
};
constexpr Attempt kOpenLargeRingWithKit = [](const Names& names) {
    return TryOpenRing(names.newRing.Name(), kLargeSize);
};
constexpr Attempt kMakeLargeBlock = [](const Names& names) {
    return TryWriter(names.newBlock.Name(), kLargeSize);
};

/// A limit that leaves `left` of what the process has now.
struct Limit {
    __rlimit_resource_t resource;
    rlim_t left;

    [[nodiscard]] rlim_t Value() const {
        switch (resource) {
            case RLIMIT_NOFILE:
                return static_cast<rlim_t>(NextDescriptor()) + left;
            case RLIMIT_AS: {
                rlim_t pages = 0;
                std::ifstream("/proc/self/statm") >> pages;
                return pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + left;
            }
            default:
                return left;
        }
    }
};

struct Row {
    const char* name;
    Attempt attempt;
    Limit limit;
    std::string said;
};

class Limited : public testing::TestWithParam<Row> {
protected:
    void SetUp() override {
        ASSERT_EQ(TryReader(names_.newBlock.Name()).substr(0, 6), "failed");  // makes the lock file
        ASSERT_EQ(TryRing(names_.ring.Name()), "works");
    }
    /// What the row's attempt says under its limit; then what it has left behind, and what it says
    /// when the limit is lifted.
    [[nodiscard]] std::string Fate(bool deadly = false) const {
        return Anonymous(FateOf([this, deadly] {
            (void)std::signal(SIGXFSZ, deadly ? SIG_DFL : SIG_IGN);
            // Failures of each kind: a sanitizer needs a descriptor to look at a type the first
            // time.
            (void)TryRing("no/ring");
            (void)TryReader("no/block");
            (void)Result([] { throw RingError("", 0); });
            // Leaves no gaps among the descriptors.
            for (int last = 0; last != -1 && last < kHighest; last = ::dup(0)) {
            }
            const int next = NextDescriptor();
            const Holdings before = HoldingsOf("qev-test");
            const __rlimit_resource_t resource = GetParam().limit.resource;
            rlimit old{};
            ::getrlimit(resource, &old);
            const rlimit low{GetParam().limit.Value(), old.rlim_max};
            ::setrlimit(resource, &low);
            std::string said = GetParam().attempt(names_);
            ::setrlimit(resource, &old);
            if (NextDescriptor() != next || !(HoldingsOf("qev-test") == before)) {
                said += "\nsomething is left";
            }
            return said + "\n" + GetParam().attempt(names_);
        }));
    }

    Names names_;
    SharedMemoryBlockWriter block_{names_.block.Name(), kBlockSize};

private:
    static constexpr int kHighest = 100;

    /// With "{}" in the place of the names, and PID and FD in that of these numbers.
    [[nodiscard]] std::string Anonymous(std::string said) const {
        SharedMemoryMetadata record;
        std::memcpy(&record, ReadFile(names_.block.LockPath()).data() + 8, sizeof(record));
        const std::map<std::string, std::string> shown = {
            {names_.block.Name(), "{}"},
            {names_.newBlock.Name(), "{}"},
            {names_.ring.Name(), "{}"},
            {names_.newRing.Name(), "{}"},
            {names_.semaphore.Name().substr(1), "{}"},
            {BlockMemoryPath(record.pid, record.fd), "/proc/PID/fd/FD"}};
        for (const auto& [text, alias] : shown) {
            for (auto at = said.find(text); at != std::string::npos; at = said.find(text)) {
                said.replace(at, text.size(), alias);
            }
        }
        return said;
    }
};

std::string NameOf(const testing::TestParamInfo<Row>& row) {
    return row.param.name;
}

const std::string kRefused =
    "SHARED_MEMORY_FAILURE; Trouble creating shared memory invalid parameter: Exception: ";

using WithoutDescriptors = Limited;

TEST_P(WithoutDescriptors, FailsWithATextLeavesNothingAndWorksAfterwards) {
    EXPECT_EQ(Fate(), GetParam().said + "\nworks");
}

constexpr Limit kNone{RLIMIT_NOFILE, 0};
constexpr Limit kOne{RLIMIT_NOFILE, 1};
constexpr Limit kTwo{RLIMIT_NOFILE, 2};

INSTANTIATE_TEST_SUITE_P(
    The, WithoutDescriptors,
    testing::Values(
        Row{"Ring", kOpenRing, kNone,
            kRefused + "Problem Creating Shared memory segment\n"
                       "{} Problem Creating Shared memory segment - 24"},
        Row{"RingWithOneLeft", kOpenRing, kOne, "works"},
        Row{"RingOfPipelineKit", kOpenRingWithKit, kNone,
            "ring {}: cannot open /{}.shm: 24(Too many open files)"},
        Row{"RingOfPipelineKitWithOneLeft", kOpenRingWithKit, kOne,
            "ring {}: cannot open it: SHARED_MEMORY_FAILURE"},
        Row{"RingObject", kMakeRingObject, kNone,
            "ring {}: cannot create /{}.shm: 24(Too many open files)"},
        Row{"NodeClaim", kClaimNode, kNone,
            "ring {}: cannot open /{}.shm: 24(Too many open files)"},
        Row{"NodeChain", kStartNode, kNone, "cannot watch node 0: 24(Too many open files)"},
        Row{"Reader", kReadBlock, kNone, "LockFile could not be opened24(Too many open files)"},
        Row{"ReaderWithOneLeft", kReadBlock, kOne,
            "failed to open shared memory: Failed to open/proc/PID/fd/FD"},
        Row{"ReaderWithTwoLeft", kReadBlock, kTwo, "works"},
        Row{"AttachingWriter", kAttachBlock, kNone,
            "LockFile could not be opened24(Too many open files)"},
        Row{"CreatingWriter", kMakeBlock, kNone,
            "LockFile could not be opened24(Too many open files)"},
        Row{"CreatingWriterWithOneLeft", kMakeBlock, kOne,
            "failed to create shared memory: SYS_memfd_create failed for name /{}.shm"
            "got errno(24):Too many open files"},
        Row{"Semaphore", kOpenSemaphore, kNone,
            "Exception: Problem Creating Semaphore - 24\nException: Problem Creating Semaphore"},
        Row{"SemaphoreOfPipelineKit", kOpenSemaphoreWithKit, kNone,
            "cannot open semaphore /{}: 24(Too many open files)"}),
    NameOf);

using WithoutAddressSpace = Limited;

TEST_P(WithoutAddressSpace, FailsWithATextLeavesNothingAndWorksAfterwards) {
    EXPECT_EQ(Fate(), GetParam().said + "\nworks");
}

constexpr Limit kSixteenMegabytes{RLIMIT_AS, 1U << 24U};

INSTANTIATE_TEST_SUITE_P(
    The, WithoutAddressSpace,
    testing::Values(Row{"Ring", kOpenLargeRing, kSixteenMegabytes,
                        kRefused +
                            "Unable to map shared memory\n{} Unable to map shared memory - 12"},
                    Row{"RingOfPipelineKit", kOpenLargeRingWithKit, kSixteenMegabytes,
                        "ring {}: cannot open it: SHARED_MEMORY_FAILURE"},
                    Row{"CreatingWriter", kMakeLargeBlock, kSixteenMegabytes,
                        "failed to create shared memory: failed to map shared memory\n"}),
    NameOf);

using WithoutLeaveForLongFiles = Limited;

TEST_P(WithoutLeaveForLongFiles, FailsWithATextLeavesNothingAndWorksAfterwards) {
    EXPECT_EQ(Fate(), GetParam().said + "\nworks");
}

TEST_P(WithoutLeaveForLongFiles, IsKilledUnlessItIgnoresTheSignal) {
    EXPECT_EQ(Fate(true), "killed by File size limit exceeded");
}

constexpr Limit kOnePage{RLIMIT_FSIZE, 4096};
constexpr Limit kTenBytes{RLIMIT_FSIZE, 10};

INSTANTIATE_TEST_SUITE_P(
    The, WithoutLeaveForLongFiles,
    testing::Values(Row{"Ring", kOpenLargeRing, kOnePage,
                        kRefused + "Problem Allocating Shared Memory\n"
                                   "{} Problem Allocating Shared Memory - 27"},
                    Row{"RingOfPipelineKit", kOpenLargeRingWithKit, kOnePage,
                        "ring {}: cannot reserve 25165976 bytes for /{}.shm: 27(File too large)"},
                    Row{"CreatingWriter", kMakeLargeBlock, kOnePage,
                        "failed to create shared memory: failed to ftruncate shared memory"},
                    Row{"LockFile", kMakeLockFile, kTenBytes,
                        "Failed to truncate lock file to correct length"}),
    NameOf);

}  // namespace
}  // namespace qel::test
