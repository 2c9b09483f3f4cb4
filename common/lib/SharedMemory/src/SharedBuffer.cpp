#include "SharedBuffer.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <gsl/assert>
#include <gsl/util>
#include <memory>
#include <stdexcept>
#include <utility>

#include "CopyPastCache.h"
#include "LogClient.h"
#include "SharedBufferLog.h"

namespace qel {
namespace {

namespace log = shared_buffer_log;

constexpr int kOpenFlags = O_RDWR | O_CREAT;
constexpr unsigned kOpenMode = 0666;

/// A step of setting up the segment, as its failure is reported.
struct Step {
    const char* operation;
    unsigned line;
    const char* logText;
    const char* exceptionText;
};

constexpr Step kOpen{"OpenShm", log::kOpenShmLine, " Problem Creating Shared memory segment - ",
                     "Exception: Problem Creating Shared memory segment"};
constexpr Step kAllocate{"AllocateShm", log::kAllocateShmLine,
                         " Problem Allocating Shared Memory - ",
                         "Exception: Problem Allocating Shared Memory"};
constexpr Step kMap{"MapShm", log::kMapShmLine, " Unable to map shared memory - ",
                    "Exception: Unable to map shared memory"};
constexpr Step kClose{"CloseShm", log::kCloseShmLine, " Problem closing shared memory fd - ",
                      "Exception: Closing shared memory fd"};

[[noreturn]] void Fail(const Step& step, const std::string& shmName) {
    const int error = errno;  // before the logger can change it
    if (LogClient::LevelIsEnabled(log::kErrorLevel)) {
        LogClient(log::kSourcePath, step.operation, step.line, log::kErrorLevel, log::kCategory)
            << shmName << step.logText << error;
    }
    throw std::runtime_error(step.exceptionText);
}

/// Deleter of the data area: unmaps the whole segment. It keeps its own share of the system calls,
/// because the buffer's share goes first.
struct Unmapper {
    std::shared_ptr<SysIF> sys;
    void* start = nullptr;
    std::uint64_t length = 0;

    void operator()(const ByteSpan* dataArea) const noexcept {
        if (sys->munmap(start, length) == -1) {
            LogFailure(errno);
        }
        delete static_cast<const RingArea*>(dataArea);
    }

private:
    static void LogFailure(int error) noexcept {
        try {
            if (LogClient::LevelIsEnabled(log::kErrorLevel)) {
                LogClient(log::kSourcePath, "operator()", log::kUnmapLine, log::kErrorLevel,
                          log::kCategory)
                    << "Problem unmapping shared memory fd - " << error;
            }
        } catch (...) {
            return;  // runs in a destructor, and there is nowhere left to report to
        }
    }
};

void RequireNodeInControlBlock(const SharedBufferIF::BufferInfo& info) {
    constexpr unsigned kLastNode = kMaxNodes - 1;
    if (info.nodeIdx > kLastNode) {
        throw std::invalid_argument("Exception: Node index " + std::to_string(info.nodeIdx) +
                                    " is not in 0 to " + std::to_string(kLastNode));
    }
    if (info.nodeIdx == kLastNode && !info.sink) {
        throw std::invalid_argument("Exception: Node index " + std::to_string(kLastNode) +
                                    " is the last and must be the sink");
    }
}

}  // namespace

SharedBuffer::SharedBuffer(std::shared_ptr<SysIF> sys, const BufferInfo& info)
    : sys_(std::move(sys)), nodeIdx_(info.nodeIdx), sink_(info.sink), shmName_(info.shmName) {
    RequireNodeInControlBlock(info);
    const std::uint64_t segmentSize = info.shmSize + sizeof(ControlBlock);
    const int fd = OpenShm();
    try {
        AllocateShm(fd, segmentSize);
        MapShm(fd, info.shmSize, segmentSize);
    } catch (...) {
        (void)sys_->close(fd);  // the failure that is under way is the one to report
        throw;
    }
    CloseShm(fd);
    InitialiseOnce(info.maxFrames);
}

int SharedBuffer::OpenShm() {
    const std::string objectName = "/" + shmName_ + ".shm";
    const int fd = sys_->shm_open(objectName.c_str(), kOpenFlags, kOpenMode);
    if (fd == -1) {
        Fail(kOpen, shmName_);
    }
    return fd;
}

void SharedBuffer::AllocateShm(int fd, std::uint64_t segmentSize) {
    if (sys_->ftruncate(fd, static_cast<long>(segmentSize)) == -1) {
        Fail(kAllocate, shmName_);
    }
}

void SharedBuffer::MapShm(int fd, std::uint64_t shmSize, std::uint64_t segmentSize) {
    // All that allocates comes before the mapping, so that no failure can lose it.
    auto dataArea = std::make_unique<RingArea>();
    std::function<void(ByteSpan*)> unmap = Unmapper{sys_};

    void* const start = sys_->mmap(nullptr, segmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (start == MAP_FAILED) {
        Fail(kMap, shmName_);
    }
    auto* const unmapper = unmap.target<Unmapper>();
    unmapper->start = start;
    unmapper->length = segmentSize;

    // The span accepts every length but one, so its contract is checked here.
    Expects(static_cast<std::int64_t>(shmSize) >= 0);
    static_cast<ByteSpan&>(*dataArea) =
        ByteSpan(static_cast<unsigned char*>(start) + sizeof(ControlBlock), shmSize);
    dataArea->pastCacheFrom = PastCacheFrom(shmSize, LargestCache());
    dataArea_ = DataArea(dataArea.release(), std::move(unmap));
    control_ = static_cast<ControlBlock*>(start);
}

void SharedBuffer::CloseShm(int fd) {
    if (sys_->close(fd) == -1) {
        Fail(kClose, shmName_);
    }
}

void SharedBuffer::InitialiseOnce(std::uint32_t maxFrames) {
    // The exchange picks one initialiser among all processes that map the segment. Others see 0
    // free bytes until the store of avail[0]; it pairs with the writer's load of avail[0].
    if (control_->initialised.exchange(1) != 0) {
        return;
    }
    control_->halfSize = ShmSize() >> 1U;
    control_->quarterSize = ShmSize() >> 2U;
    control_->avail[0].store(ShmSize());
    if (maxFrames != 0) {
        control_->maxPackets = maxFrames + 1;  // 32 bits: the highest limit wraps to "no limit"
    }
}

}  // namespace qel
