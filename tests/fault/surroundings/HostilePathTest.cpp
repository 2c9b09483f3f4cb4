// Something else where a lock file or the object of a ring or of a semaphore should be, put there
// by the user who opens it.

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "Attempts.h"
#include "Obstacles.h"
#include "ProcessState.h"
#include "Rights.h"
#include "RingObject.h"
#include "Thrown.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

/// The step of the ring's opening that fails.
enum class Step { Open, Size };

struct Row {
    const char* name;
    Obstacle obstacle;
    int lockFile;  ///< the errno that opening it reports
    Step ringStep;
    int ring;
    int semaphore;
    bool asOtherUser = false;  ///< for root all files are open
};

class SomethingElse : public testing::TestWithParam<Row> {
protected:
    /// Makes the obstacle and lets a process of its own run `attempts`, one line for each.
    template <typename Attempts>
    std::string Meet(const Removed& path, const char* directory, Attempts attempts) {
        const Row& row = GetParam();
        if (row.obstacle == &Device && HasNoDevices(directory)) {
            return Skip("device files do not work there");
        }
        return FateOf([&]() -> std::string {
            const Removed precious(path.Path() + ".precious");
            if (row.asOtherUser && IsRoot() && !BecomeUser(kNobody)) {
                return kNotRoot;
            }
            if (!row.obstacle(path.Path(), precious.Path())) {
                return Skip("this process may not make that");
            }
            const int next = NextDescriptor();
            std::string said = attempts();
            if (!path.IsThere()) {
                said += "the obstacle is gone\n";
            }
            if (row.obstacle == &LinkTo && ReadFile(precious.Path()) != kPrecious) {
                said += "what the link leads to is lost\n";
            }
            if (row.obstacle == &DanglingLink && precious.IsThere()) {
                said += "what the link leads to is made\n";
            }
            if (NextDescriptor() != next || HoldingsOf(path.Path()).mappings != 0) {
                said += "something is left open\n";
            }
            return said;
        });
    }
};

TEST_P(SomethingElse, AtALockFilesPathIsRefusedByReaderAndWriter) {
    const UniqueBlockName name;
    const Removed path(name.LockPath());
    const std::string fate = Meet(path, "/tmp", [&] {
        return TryReader(name.Name()) + "\n" + TryWriter(name.Name()) + "\n";
    });
    QEV_SKIP_IF_SAID(fate);
    const std::string refusal = "LockFile could not be opened" + Errno(GetParam().lockFile) + "\n";
    EXPECT_EQ(fate, refusal + refusal);
}

TEST_P(SomethingElse, AtARingsPathIsRefused) {
    const UniqueRingName name;
    const Removed path(name.Path());
    const std::string fate = Meet(path, "/dev/shm", [&] {
        return TryRing(name.Name()) + "\n" + TryOpenRing(name.Name()) + "\n";
    });
    QEV_SKIP_IF_SAID(fate);
    const Row& row = GetParam();
    const bool opens = row.ringStep == Step::Size;
    EXPECT_EQ(fate,
              (opens ? RingNotSized(name.Name(), row.ring) : RingNotOpened(name.Name(), row.ring)) +
                  "\nring " + name.Name() + ": cannot " + (opens ? "use /" : "open /") +
                  name.Name() + ".shm: " + Errno(row.ring) + "\n");
}

TEST_P(SomethingElse, AtASemaphoresPathIsRefused) {
    const UniqueSemaphoreName name;
    const Removed path(SystemSemaphore::PathOf(name.Name().substr(1)));
    const std::string fate = Meet(path, "/dev/shm", [&] {
        return TrySemaphore(name.Name()) + "\n" + TrySystemSemaphore(name.Name()) + "\n";
    });
    QEV_SKIP_IF_SAID(fate);
    const std::string number = std::to_string(GetParam().semaphore);
    EXPECT_EQ(fate, "Exception: Problem Creating Semaphore - " + number +
                        "\nException: Problem Creating Semaphore\ncannot open semaphore " +
                        name.Name() + ": " + Errno(GetParam().semaphore) + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Being, SomethingElse,
    testing::Values(Row{"ALink", &LinkTo, ELOOP, Step::Open, ELOOP, ELOOP},
                    Row{"ADanglingLink", &DanglingLink, ELOOP, Step::Open, ELOOP, ELOOP},
                    Row{"AFifo", &Fifo, EINVAL, Step::Size, EINVAL, ENODEV},
                    Row{"ADirectory", &Directory, EISDIR, Step::Open, EINVAL, EISDIR},
                    Row{"ASocket", &Socket, ENXIO, Step::Open, ENXIO, ENXIO},
                    Row{"ADevice", &Device, EINVAL, Step::Size, EINVAL, ENODEV},
                    Row{"AFileForNobody", &FileForNobody, EACCES, Step::Open, EACCES, EACCES, true},
                    Row{"AFileToReadOnly", &FileToRead, EACCES, Step::Open, EACCES, EACCES, true}),
    [](const auto& row) { return row.param.name; });

// A FIFO that nobody writes to would keep whoever opens it for reading waiting.
TEST(AFifoAtARingsPath, DoesNotKeepALookAtTheRingWaiting) {
    const UniqueRingName name;
    ASSERT_TRUE(Fifo(name.Path(), ""));
    EXPECT_EQ(FateOf([&] { return std::to_string(RingObject::FindSize(name.Name()).value()); }),
              "0");
}

}  // namespace
}  // namespace qel::test
