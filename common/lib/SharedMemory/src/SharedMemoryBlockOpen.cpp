// Getting a block into memory: opening the one that is announced, or creating it.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "HugePages.h"
#include "SharedMemoryBlock.h"
#include "StandardOutput.h"
#include "Sys.h"

namespace qel {
namespace {

constexpr const char* kNotRegular =
    "shared memory file is not of regular type, assuming stale file descriptor";
constexpr unsigned kMemfdFlags = 2;  // MFD_ALLOW_SEALING

std::string ErrorText(int error) {
    return std::strerror(error);
}

bool IsRegular(const struct stat& status) {
    return (status.st_mode & S_IFREG) != 0;  // this one bit of the file type, no more
}

std::int64_t DrawUid() {
    std::random_device device("default");
    (void)device();
    std::uniform_int_distribution<long> range(std::llround(std::pow(2, 61)),
                                              std::llround(std::pow(2, 62)));
    return range(device);
}

/// Deleter of a mapping. It keeps its own share of the system calls, because the block's share goes
/// first.
struct Unmapper {
    std::shared_ptr<SysIF> sys;
    std::uint64_t length;

    void operator()(unsigned char* start) const noexcept {
        try {
            if (sys->munmap(start, length) == -1) {
                WriteOut("Problem unmapping shared memory fd - " + std::to_string(errno) + "\n");
            }
        } catch (...) {
            return;  // runs in a destructor, and there is nowhere left to report to
        }
    }
};

/// Runs `body` between `lock` and `unlock`. The lock is given back in every case; a failure of that
/// passes only if nothing else is on its way.
template <typename Lock, typename Unlock, typename Body>
void Locked(const Lock& lock, const Unlock& unlock, const Body& body) {
    lock();
    try {
        body();
    } catch (...) {
        try {
            unlock();
        } catch (...) {
            // The first failure is the one to report.
        }
        throw;
    }
    unlock();
}

}  // namespace

SharedMemoryBlock::SharedMemoryBlock(std::shared_ptr<SysIF> sys, std::string_view name, bool create,
                                     std::uint64_t size)
    : sys_(std::move(sys)) {
    if (name.empty()) {
        throw std::invalid_argument("Exception: SharedMemoryBlock name empty");
    }
    if (!sys_) {
        throw std::invalid_argument("Exception: SharedMemoryBlock without system calls");
    }
    lockFile_ = std::make_unique<LockFile>(BlockLockPath(name));
    if (!lockFile_->IsReadable()) {
        const int error = errno;
        throw std::runtime_error("LockFile could not be opened" + std::to_string(error) + "(" +
                                 ErrorText(error) + ")");
    }
    if (create) {
        Locked([this] { lockFile_->LockExclusive(); }, [this] { lockFile_->UnlockExclusive(); },
               [&] { OpenOrCreate("/" + std::string(name) + ".shm", size); });
    } else {
        Locked([this] { lockFile_->LockShared(); }, [this] { lockFile_->UnlockShared(); },
               [this] { Open(); });
    }
    if (HasHugePages()) {
        UseHugePages(mapping_.get(), size_);
    }
    SetWriteAllowed(false);
    SetReadAllowed(false);
}

/// Only of memory that is known to come from the system: a substitute may have its own plans with
/// what it hands out.
bool SharedMemoryBlock::HasHugePages() const {
    const SysIF& sys = *sys_;
    return size_ >= kWorthHugePages && typeid(sys) == typeid(Sys);
}

void SharedMemoryBlock::Open() {
    const auto [opened, reason] = OpenExistingSharedMemory(false);
    if (!opened) {
        throw std::runtime_error("failed to open shared memory: " + reason);
    }
}

void SharedMemoryBlock::OpenOrCreate(const std::string& memoryFileName, std::uint64_t size) {
    const auto [opened, openReason] = OpenExistingSharedMemory(true);
    if (opened) {
        return;
    }
    if (size == 0) {
        throw std::runtime_error("failed to open shared memory: " + openReason);
    }
    const auto [created, createReason] = CreateSharedMemory(memoryFileName, size);
    if (!created) {
        throw std::runtime_error("failed to create shared memory: " + createReason);
    }
}

SharedMemoryBlock::OpenResult SharedMemoryBlock::OpenExistingSharedMemory(bool write) {
    SharedMemoryMetadata record;
    if (!lockFile_->Read(&record, sizeof(record), 0)) {
        return {false, "failed to read lockFile to get metadata"};
    }
    if (record.fd < 0) {
        return {false, "lockFile metadata has invalid file descriptor"};
    }
    return Attach(record, write);
}

SharedMemoryBlock::OpenResult SharedMemoryBlock::Attach(const SharedMemoryMetadata& record,
                                                        bool write) {
    const std::string path = BlockMemoryPath(record.pid, record.fd);
    struct stat status {};
    if (::stat(path.c_str(), &status) == -1) {
        return {false, "file does not exist"};
    }
    if (S_ISFIFO(status.st_mode)) {
        return {false, kNotRegular};  // to open it could wait for ever, with the lock held
    }
    const int flags = (write ? O_RDWR : O_RDONLY) | O_CLOEXEC;
    FileDescriptor descriptor(::open(path.c_str(), flags));
    if (!descriptor.IsOpen()) {
        return {false, "Failed to open" + path};
    }
    if (::fstat(descriptor.Get(), &status) == -1) {
        return {false,
                "could not fstat the shared memory file for validation: " + ErrorText(errno)};
    }
    if (!IsRegular(status)) {
        return {false, kNotRegular};
    }
    if (status.st_ino != record.ino || status.st_dev != record.dev) {
        return {false,
                "shared memory file properties do not match lock file metadata, assuming stale "
                "file descriptor"};
    }
    if (status.st_size < 0) {
        return {false, "shared memory size is invalid"};
    }
    if (static_cast<std::uint64_t>(status.st_size) < kBlockHeaderSize) {
        return {false, "shared memory is too small"};
    }
    size_ = static_cast<std::uint64_t>(status.st_size);

    std::int64_t uid = 0;
    if (::pread(descriptor.Get(), &uid, sizeof(uid), 0) != sizeof(uid)) {
        return {false, "failed to read metadata from shared memory"};
    }
    if (uid == 0 || uid != record.uid) {
        return {false,
                "shared memory metadata uid does not match lock file metadata uid, assuming stale "
                "file descriptor"};
    }
    // The open flags, not FD_CLOEXEC: this clears close-on-exec, and is meant to.
    if (::fcntl(descriptor.Get(), F_SETFD, flags) == -1) {
        return {false, "failed to set shared memory mode flags: " + ErrorText(errno)};
    }
    if (!MapSharedMem(descriptor.Get(), size_, write ? PROT_READ | PROT_WRITE : PROT_READ)) {
        return {false, "failed to map shared memory"};
    }
    fd_ = std::move(descriptor);
    return {true, {}};
}

SharedMemoryBlock::OpenResult SharedMemoryBlock::CreateSharedMemory(
    const std::string& memoryFileName, std::uint64_t size) {
    FileDescriptor descriptor(
        static_cast<int>(::syscall(SYS_memfd_create, memoryFileName.c_str(), kMemfdFlags)));
    if (!descriptor.IsOpen()) {
        const int error = errno;
        return {false, "SYS_memfd_create failed for name " + memoryFileName + "got errno(" +
                           std::to_string(error) + "):" + ErrorText(error)};
    }
    const std::string described = std::to_string(descriptor.Get()) + " name:" + memoryFileName;
    struct stat status {};
    if (::fstat(descriptor.Get(), &status) == -1) {
        return {false, "fstat failed for fd:" + described + ": " + ErrorText(errno)};
    }
    if (!IsRegular(status)) {
        return {false, "fstat returned non-regular file for fd:" + described};
    }
    const SharedMemoryMetadata record{::getpid(), descriptor.Get(), status.st_dev, status.st_ino,
                                      DrawUid()};
    // Announced before the memory has its size: should a step below fail, the descriptor closes and
    // openers find the record stale.
    if (!lockFile_->Write(&record, sizeof(record), 0)) {
        return {false, "failed to write to lockfile"};
    }
    size_ = size + kBlockHeaderSize;
    const bool tooLarge = size_ < size;  // the sum does not fit in 64 bits
    if (tooLarge || sys_->ftruncate(descriptor.Get(), static_cast<long>(size_)) == -1) {
        return {false, "failed to ftruncate shared memory"};
    }
    if (!MapSharedMem(descriptor.Get(), size_, PROT_READ | PROT_WRITE)) {
        return {false, "failed to map shared memory\n"};
    }
    std::memset(mapping_.get(), 0, size_);
    *header_ = record.uid;
    fd_ = std::move(descriptor);
    return {true, {}};
}

bool SharedMemoryBlock::MapSharedMem(int descriptor, std::uint64_t length, int protection) {
    // All that allocates comes before the mapping, so that no failure can lose it.
    std::function<void(unsigned char*)> unmap = Unmapper{sys_, length};
    void* const start = sys_->mmap(nullptr, length, protection, MAP_SHARED, descriptor, 0);
    if (start == MAP_FAILED) {
        return false;
    }
    auto* bytes = static_cast<unsigned char*>(start);
    if (HasHugePages()) {
        bytes = MoveForHugePages(bytes, length);
    }
    mapping_ = decltype(mapping_)(bytes, std::move(unmap));
    header_ = reinterpret_cast<std::int64_t*>(bytes);
    data_ = mapping_.get() + kBlockHeaderSize;
    return true;
}

}  // namespace qel
