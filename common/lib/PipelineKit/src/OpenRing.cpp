#include "OpenRing.h"

#include <sys/file.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "RingInfo.h"
#include "SharedMemLibFactory.h"
#include "ShmFile.h"

namespace qel {
namespace {

/// Sizes a fresh object, and refuses one of another size. The lock on `file` is held.
void SizeObject(const ShmFile& file, const SharedBufferIF::BufferInfo& info) {
    const struct stat status = file.Stat();
    if (!S_ISREG(status.st_mode)) {
        file.Fail("use", EINVAL);
    }
    const auto length = static_cast<std::uint64_t>(status.st_size);
    if (length != 0 && length != info.shmSize + kControlBlockSize) {
        throw std::invalid_argument(
            "ring " + info.shmName + " exists with a size of " +
            std::to_string(length < kControlBlockSize ? 0 : length - kControlBlockSize) +
            " bytes, not " + std::to_string(info.shmSize));
    }
    try {
        file.Reserve(info.shmSize);
    } catch (const RingError&) {
        if (length == 0) {
            (void)shm_unlink(RingObjectName(info.shmName).c_str());
        }
        throw;
    }
}

}  // namespace

std::unique_ptr<SharedPacketBufferIF> OpenRing(const SharedBufferIF::BufferInfo& info) {
    RequireRingInfo(info);
    const ShmFile file(info.shmName, O_RDWR | O_CREAT);
    if (!file.IsOpen()) {
        file.Fail("open", errno);
    }
    // Held until the ring is initialised: the packet limit appears later than the free bytes.
    while (flock(file.Fd(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            file.Fail("lock", errno);
        }
    }
    SizeObject(file, info);
    SharedPacketBufferResult result = SharedMemLibFactory::Create()->GetSharedPacketBuffer(info);
    if (result.status != SMStatusCode::SUCCESS) {
        std::ostringstream text;
        text << "ring " << info.shmName << ": cannot open it: " << result.status;
        throw std::runtime_error(text.str());
    }
    return std::move(result.buffer);
}

}  // namespace qel
