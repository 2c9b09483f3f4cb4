#include "PopulateRing.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "RingError.h"

namespace qel {
namespace {

constexpr int kPopulateWrite = 23;  // MADV_POPULATE_WRITE, which older headers lack

void ReadEveryPage(const ByteSpan& area, std::size_t pageSize) {
    for (std::size_t offset = 0; offset < area.size(); offset += pageSize) {
        // Atomic and volatile: others may be writing there, and the value is not wanted.
        const volatile unsigned char* const byte = area.data() + offset;
        (void)__atomic_load_n(byte, __ATOMIC_RELAXED);
    }
    (void)__atomic_load_n(&area.back(), __ATOMIC_RELAXED);
}

}  // namespace

void PopulateRing(SharedPacketBufferIF& ring, std::uint64_t size, const AdviseFunction& advise) {
    const ReadResult area = ring.ReadData(0, size);
    if (area.status != SMStatusCode::SUCCESS) {
        throw std::invalid_argument("ring " + ring.GetCurrentCapacity().shmName +
                                    " is smaller than " + std::to_string(size) + " bytes");
    }
    if (area.data.empty()) {
        return;
    }
    const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    // The view begins behind the control block, in the mapping's first page.
    const std::size_t lead = reinterpret_cast<std::uintptr_t>(area.data.data()) % pageSize;
    if (advise(area.data.data() - lead, area.data.size() + lead, kPopulateWrite) == 0) {
        return;
    }
    const int error = errno;
    if (error != EINVAL) {
        throw RingError("ring " + ring.GetCurrentCapacity().shmName + ": cannot populate " +
                            std::to_string(area.data.size()) + " bytes",
                        error);
    }
    ReadEveryPage(area.data, pageSize);
}

}  // namespace qel
