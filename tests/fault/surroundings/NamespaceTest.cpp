// Processes that see different processes, a different /tmp or a different /dev/shm, as in
// containers and in services with PrivateTmp.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <filesystem>

#include "Attempts.h"
#include "Files.h"
#include "NamedSemaphore.h"
#include "ProcessState.h"
#include "Rights.h"
#include "SharedMemoryMetadata.h"
#include "UniqueBlockName.h"
#include "UniqueRingName.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

const std::string kOpening = "failed to open shared memory: ";

SharedMemoryMetadata RecordOf(const UniqueBlockName& name) {
    SharedMemoryMetadata record;
    const std::string content = ReadFile(name.LockPath());
    if (content.size() == 40) {
        std::memcpy(&record, content.data() + 8, sizeof(record));
    }
    return record;
}

/// Runs `body` as process 1 of a pid namespace, which sees the processes of that only. `body` may
/// talk to the test.
template <typename Body>
class PidNamespace {
public:
    explicit PidNamespace(Body body)
        : outer_([body](const Conversation& test) {
              if (!EnterNamespaces(CLONE_NEWPID | CLONE_NEWNS)) {
                  test.Say(kNoNamespaces);
                  return 0;
              }
              ChildProcess first([&](const Conversation& /*outer*/) {
                  DieAsAnyOther();
                  if (::mount("proc", "/proc", "proc", 0, nullptr) == -1) {
                      test.Say(Skip("this process may not mount /proc"));
                      return 0;
                  }
                  body(test);
                  return 0;
              });
              return first.ExitCode();
          }) {}

    [[nodiscard]] std::string Hear() const { return outer_.Hear(); }
    void Say(const std::string& text) const { outer_.Say(text); }

private:
    ChildProcess outer_;
};

/// Its memory file has a descriptor number that others have free.
void MakeAndHold(const std::string& name, const Conversation& test) {
    constexpr int kFree = 100;
    for (int last = 0; last != -1 && last < kFree; last = ::dup(0)) {
    }
    SharedMemoryBlockWriter writer(name, kBlockSize);
    test.Say("made");
    (void)test.Hear();
}

TEST(AnotherPidNamespace, DoesNotShowTheCreatorToAReaderInIt) {
    const UniqueBlockName name;
    SharedMemoryBlockWriter writer(name.Name(), kBlockSize);
    const PidNamespace inner([&](const Conversation& test) { test.Say(TryReader(name.Name())); });
    const std::string said = inner.Hear();
    QEV_SKIP_IF_SAID(said);
    EXPECT_EQ(said, kOpening + "file does not exist");
}

// The numbers in its record mean another process here: this system's first, if anything.
TEST(AnotherPidNamespace, DoesNotShowACreatorInItToAReaderOutside) {
    const UniqueBlockName name;
    const PidNamespace inner([&](const Conversation& test) { MakeAndHold(name.Name(), test); });
    const std::string said = inner.Hear();
    QEV_SKIP_IF_SAID(said);
    ASSERT_EQ(said, "made");
    EXPECT_EQ(RecordOf(name).pid, 1);
    EXPECT_EQ(TryReader(name.Name()).substr(0, kOpening.size()), kOpening);
}

/// What the reader's own process 1 has open under the creator's descriptor number.
struct SameNumber {
    const char* name;
    int (*open)();
    std::string result;
};

int MemoryFile() {
    const int file = ::memfd_create("qev-test-other", 0);
    return ::ftruncate(file, kBlockSize + 8) == 0 ? file : -1;
}

class AProcessOfTheSameNumber : public testing::TestWithParam<SameNumber> {};

TEST_P(AProcessOfTheSameNumber, IsNotTakenForTheCreator) {
    const UniqueBlockName name;
    const PidNamespace creators([&](const Conversation& test) { MakeAndHold(name.Name(), test); });
    const std::string said = creators.Hear();
    QEV_SKIP_IF_SAID(said);
    ASSERT_EQ(said, "made");
    const SharedMemoryMetadata record = RecordOf(name);
    ASSERT_EQ(record.pid, 1);
    const PidNamespace readers([&](const Conversation& test) {
        const int file = GetParam().open();
        if (file != -1) {
            ::dup2(file, record.fd);
        }
        test.Say(TryReader(name.Name()));
    });
    EXPECT_EQ(readers.Hear(), kOpening + GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    With, AProcessOfTheSameNumber,
    testing::Values(
        SameNumber{"AnotherMemoryFile", &MemoryFile,
                   "shared memory file properties do not match lock file metadata, assuming stale "
                   "file descriptor"},
        SameNumber{"ADevice", [] { return ::open("/dev/null", O_RDWR); },
                   "shared memory file is not of regular type, assuming stale file descriptor"},
        SameNumber{"Nothing", [] { return -1; }, "file does not exist"}),
    [](const auto& row) { return row.param.name; });

TEST(AnotherPidNamespace, SharesTheLock) {
    const UniqueBlockName name;
    const PidNamespace inner([&](const Conversation& test) {
        SharedMemoryBlockWriter writer(name.Name(), kBlockSize);
        writer.LockForWrite();
        test.Say("locked");
        (void)test.Hear();
        writer.UnlockForWrite();
        test.Say("free");
        (void)test.Hear();
    });
    const std::string said = inner.Hear();
    QEV_SKIP_IF_SAID(said);
    ASSERT_EQ(said, "locked");
    EXPECT_EQ(LockOn(name.LockPath()), Held::Exclusive);
    inner.Say("give it back");
    EXPECT_EQ(inner.Hear(), "free");
    EXPECT_EQ(LockOn(name.LockPath()), Held::No);
}

class APrivateDirectory : public testing::Test {
protected:
    /// What `body` says where `directory` is its own and empty.
    template <typename Body>
    static std::string Within(const char* directory, Body body) {
        return FateOf([&]() -> std::string {
            if (!EnterNamespaces(CLONE_NEWNS) || !MountMemory(directory)) {
                return kNoNamespaces;
            }
            return body();
        });
    }
    /// What node 1 of the ring gets.
    [[nodiscard]] std::string ReadOne() const {
        const auto ring = SharedMemLibFactory::Create()->GetSharedPacketBuffer(
            {ring_.Name(), kRingSize, 1, true});
        std::ostringstream text;
        text << ring.buffer->ReadNextPacket().status;
        return text.str();
    }

    /// Whether a reader finds the block. From within a user namespace of its own, which whoever is
    /// not root needs, it may not look into the creator's process.
    [[nodiscard]] std::string BlockIsFound() const {
        const bool sameUsers = users_ == std::filesystem::read_symlink("/proc/self/ns/user");
        const std::string expected = sameUsers ? "works" : kOpening + "file does not exist";
        const std::string result = TryReader(block_.Name());
        return result == expected ? "as expected" : result;
    }

    const std::filesystem::path users_ = std::filesystem::read_symlink("/proc/self/ns/user");
    const UniqueBlockName block_;
    const UniqueRingName ring_;
    const UniqueSemaphoreName semaphore_;
};

TEST_F(APrivateDirectory, BeingTmpHidesBlocksAndNothingElse) {
    SharedMemoryBlockWriter writer(block_.Name(), kBlockSize);
    const auto node0 =
        SharedMemLibFactory::Create()->GetSharedPacketBuffer({ring_.Name(), kRingSize, 0});
    ASSERT_EQ(node0.buffer->WritePacket({}), SMStatusCode::SUCCESS);
    const NamedSemaphore semaphore(semaphore_.Name(), 3);
    const std::string said = Within("/tmp", [&] {
        return TryReader(block_.Name()) + "\n" + ReadOne() + "\n" +
               std::to_string(NamedSemaphore(semaphore_.Name(), 0).GetValue());
    });
    QEV_SKIP_IF_SAID(said);
    EXPECT_EQ(said, kOpening + "failed to read lockFile to get metadata\nSUCCESS\n3");
}

TEST_F(APrivateDirectory, BeingTmpHasAWriterMakeASecondBlock) {
    SharedMemoryBlockWriter writer(block_.Name(), kBlockSize);
    const std::string said = Within(
        "/tmp", [&] { return std::to_string(SharedMemoryBlockWriter(block_.Name(), 500).Size()); });
    QEV_SKIP_IF_SAID(said);
    EXPECT_EQ(said, "500");
    EXPECT_EQ(SharedMemoryBlockReader(block_.Name()).Size(), kBlockSize);
}

TEST_F(APrivateDirectory, BeingDevShmHidesRingsAndSemaphoresAndNotBlocks) {
    SharedMemoryBlockWriter writer(block_.Name(), kBlockSize);
    const auto node0 =
        SharedMemLibFactory::Create()->GetSharedPacketBuffer({ring_.Name(), kRingSize, 0});
    ASSERT_EQ(node0.buffer->WritePacket({}), SMStatusCode::SUCCESS);
    const NamedSemaphore semaphore(semaphore_.Name(), 3);
    const std::string said = Within("/dev/shm", [&] {
        return BlockIsFound() + "\n" + ReadOne() + "\n" +
               std::to_string(NamedSemaphore(semaphore_.Name(), 0).GetValue());
    });
    QEV_SKIP_IF_SAID(said);
    EXPECT_EQ(said, "as expected\nDATA_NOT_AVAILABLE\n0");
}

}  // namespace
}  // namespace qel::test
