// A block's lock, through the library and by the bare system calls.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Clock.h"
#include "FileDescriptor.h"
#include "InterfaceFactory.h"
#include "Limits.h"
#include "Processes.h"
#include "Quantiles.h"
#include "RingError.h"
#include "SharedMemoryBlockWriterIF.h"
#include "Transport.h"

namespace qel::bench {
namespace {

constexpr std::size_t kFewest = 5;

/// The median of what `operation` takes, in ns.
template <typename Operation>
double MedianOf(const Operation& operation, double seconds) {
    std::vector<std::uint64_t> times;
    operation();
    const std::int64_t end = Now() + static_cast<std::int64_t>(seconds * 1e9);
    while (times.size() < kFewest || Now() < end) {
        const std::int64_t start = Now();
        operation();
        times.push_back(static_cast<std::uint64_t>(Now() - start));
    }
    return QuantilesOf(times, 1)[0];
}

/// Removes a lock file when all is over.
class LockFileName {
public:
    explicit LockFileName(const std::string& name) : path_("/tmp/" + name + "_shm.lock") {}
    ~LockFileName() { (void)unlink(path_.c_str()); }
    LockFileName(const LockFileName&) = delete;
    LockFileName& operator=(const LockFileName&) = delete;

    [[nodiscard]] const std::string& Path() const noexcept { return path_; }

private:
    std::string path_;
};

nlohmann::json MeasureLibrary(std::size_t size, double seconds) {
    const std::string name = UniqueName(0);
    const LockFileName lockFile(name);
    const auto block =
        InterfaceFactory::Create<SharedMemoryBlockWriterIF, std::string_view, unsigned long>(
            "SharedMemoryWriterIF", name, size);
    block->LockForWrite();
    std::memset(block->GetDataForWrite(), 1, block->Size());
    block->UnlockForWrite();
    const auto write = [&] {
        block->LockForWrite();
        block->UnlockForWrite();
    };
    const auto read = [&] {
        block->LockForRead();
        block->UnlockForRead();
    };
    return {{"write_ns", MedianOf(write, seconds / 2)}, {"read_ns", MedianOf(read, seconds / 2)}};
}

void Require(int status, const char* what) {
    if (status == -1) {
        throw RingError(what, errno);
    }
}

/// A memory file whose pages are small and present.
class SmallPages {
public:
    explicit SmallPages(std::size_t size) : size_(size), file_(memfd_create("bench", MFD_CLOEXEC)) {
        Require(ftruncate(file_.Get(), static_cast<off_t>(size)), "cannot make a memory file");
        memory_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file_.Get(), 0);
        if (memory_ == MAP_FAILED) {
            throw RingError("cannot map a memory file", errno);
        }
        (void)madvise(memory_, size, MADV_NOHUGEPAGE);
        std::memset(memory_, 1, size);
    }
    ~SmallPages() { (void)munmap(memory_, size_); }
    SmallPages(const SmallPages&) = delete;
    SmallPages& operator=(const SmallPages&) = delete;

    void Protect(int protection) const {
        Require(mprotect(memory_, size_, protection), "cannot protect");
    }

private:
    std::size_t size_;
    FileDescriptor file_;
    void* memory_;
};

/// @return also what the calls take that the library makes for writing, in its order: no moment has
///         more access than the lock allows
nlohmann::json MeasureRaw(std::size_t size, double seconds) {
    constexpr std::size_t kIdentifier = 8;  // bytes that a block has besides
    const LockFileName lockFile(UniqueName(0));
    const FileDescriptor lock(open(lockFile.Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const SmallPages memory(size + kIdentifier);
    const auto once = [&](int kind, int protection) {
        Require(flock(lock.Get(), kind), "cannot lock");
        memory.Protect(protection);
        memory.Protect(PROT_NONE);
        Require(flock(lock.Get(), LOCK_UN), "cannot unlock");
    };
    const auto stepByStep = [&] {
        Require(flock(lock.Get(), LOCK_EX), "cannot lock");
        for (const int protection : {PROT_WRITE, PROT_READ | PROT_WRITE, PROT_READ, PROT_NONE}) {
            memory.Protect(protection);
        }
        Require(flock(lock.Get(), LOCK_UN), "cannot unlock");
    };
    return {{"write_ns", MedianOf([&] { once(LOCK_EX, PROT_READ | PROT_WRITE); }, seconds / 3)},
            {"write_steps_ns", MedianOf(stepByStep, seconds / 3)},
            {"read_ns", MedianOf([&] { once(LOCK_SH, PROT_READ); }, seconds / 3)}};
}

}  // namespace

nlohmann::json MeasureBlock(std::size_t size, BlockBy how, double seconds) {
    PinToCore(0);
    return how == BlockBy::Library ? MeasureLibrary(size, seconds) : MeasureRaw(size, seconds);
}

}  // namespace qel::bench
