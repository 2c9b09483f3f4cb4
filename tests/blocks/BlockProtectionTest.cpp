// What a touch of a block's memory does in each state of its locks.

#include <csignal>

#include "BlockFixture.h"
#include "ChildProcess.h"
#include "Worker.h"

namespace qel::test {
namespace {

constexpr int kFaulted = 42;

volatile unsigned char* touched = nullptr;

/// Ends the process with `kFaulted` for a refused access to `touched`, else with 1.
void OnFault(int /*signal*/, siginfo_t* info, void* /*context*/) {
    ::_exit(info->si_code == SEGV_ACCERR && info->si_addr == touched ? kFaulted : 1);
}

enum class Access { Read, Write };

/// True if the access to the byte at `address` faults. It is made in a forked process, which has
/// this one's mappings and protections.
bool Faults(const unsigned char* address, Access access) {
    touched = const_cast<unsigned char*>(address);
    ChildProcess child([access](const Conversation& /*parent*/) {
        struct sigaction action {};
        action.sa_sigaction = &OnFault;
        action.sa_flags = SA_SIGINFO;
        ::sigaction(SIGSEGV, &action, nullptr);
        if (access == Access::Read) {
            (void)*touched;
        } else {
            *touched = 1;
        }
        return 0;
    });
    const int code = child.ExitCode();
    EXPECT_TRUE(code == 0 || code == kFaulted) << code;
    return code == kFaulted;
}

/// What may be done to the byte at `address`: "-", "r" or "rw".
std::string Allowed(const unsigned char* address) {
    const bool read = !Faults(address, Access::Read);
    const bool write = !Faults(address, Access::Write);
    return read ? (write ? "rw" : "r") : (write ? "w" : "-");
}

class BlockProtection : public BlockTest {
protected:
    void SetUp() override {
        writer_->LockForWrite();
        written_ = writer_->GetDataForWrite();
        writer_->UnlockForWrite();
        reader_->LockForRead();
        read_ = reader_->GetDataForRead();
        reader_->UnlockForRead();
    }
    /// Expects the same of the header, the first and the last byte of data.
    static void ExpectAllowed(const unsigned char* data, const std::string& access) {
        EXPECT_EQ(Allowed(data - 8), access) << "header";
        EXPECT_EQ(Allowed(data), access) << "first byte";
        EXPECT_EQ(Allowed(data + 9999), access) << "last byte";
    }

    std::unique_ptr<SharedMemoryBlock> writer_ = Creator(10000);
    std::unique_ptr<SharedMemoryBlock> reader_ = Opener();
    const unsigned char* written_ = nullptr;
    const unsigned char* read_ = nullptr;
};

TEST_F(BlockProtection, AllowsNothingOutsideALock) {
    ExpectAllowed(written_, "-");
    ExpectAllowed(read_, "-");
}

TEST_F(BlockProtection, AllowsNothingStraightAfterConstruction) {
    // The pages behind a fresh block's mapping, found without taking a lock.
    const UniqueBlockName name;
    const SharedMemoryBlock block(std::make_shared<Sys>(), name.Name(), true, 10000);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("memfd:" + name.MemoryName()) != std::string::npos) {
            EXPECT_NE(line.find(" ---s "), std::string::npos) << line;
            const auto start = static_cast<std::uintptr_t>(std::stoull(line, nullptr, 16));
            // NOLINTNEXTLINE(performance-no-int-to-ptr)
            ExpectAllowed(reinterpret_cast<const unsigned char*>(start + 8), "-");
            return;
        }
    }
    FAIL() << "the block is not mapped";
}

TEST_F(BlockProtection, AllowsReadingUnderAReadLock) {
    writer_->LockForRead();
    reader_->LockForRead();

    ExpectAllowed(written_, "r");
    ExpectAllowed(read_, "r");
}

TEST_F(BlockProtection, AllowsReadingAndWritingUnderAWriteLock) {
    writer_->LockForWrite();

    ExpectAllowed(written_, "rw");
    ExpectAllowed(read_, "-");
}

TEST_F(BlockProtection, EndsWithEachLock) {
    writer_->LockForWrite();
    writer_->UnlockForWrite();
    ExpectAllowed(written_, "-");

    writer_->LockForRead();
    writer_->UnlockForRead();
    ExpectAllowed(written_, "-");

    EXPECT_EQ(writer_->GetDataForWrite(), written_) << "handed out still, but of no use";
}

TEST_F(BlockProtection, EndsWithTheLastOfTwoReaders) {
    Worker other;
    reader_->LockForRead();
    other.Do([this] { reader_->LockForRead(); });

    reader_->UnlockForRead();
    EXPECT_EQ(Allowed(read_), "r");

    other.Do([this] { reader_->UnlockForRead(); });
    EXPECT_EQ(Allowed(read_), "-");
}

TEST_F(BlockProtection, FollowsWhatIsAllowedWithoutALock) {
    writer_->SetReadAllowed(true);
    EXPECT_EQ(Allowed(written_), "r");
    writer_->SetWriteAllowed(true);
    EXPECT_EQ(Allowed(written_), "rw");
    writer_->SetWriteAllowed(false);
    writer_->SetReadAllowed(false);
    EXPECT_EQ(Allowed(written_), "-");
}

}  // namespace
}  // namespace qel::test
