#include "SemaphoreView.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>

#include "File.h"
#include "SystemSemaphore.h"

namespace qel {

std::optional<SemaphoreView> LookAtSemaphore(const std::string& name) {
    const std::string path = SystemSemaphore::PathOf(name);
    const File file = OpenToLook(path, O_NOFOLLOW);
    if (!file.IsOpen()) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        FailToRead(path, errno);
    }
    SemaphoreView semaphore;
    // On 64-bit systems the C library keeps both numbers in the first word: the value below, the
    // waiting threads above.
    std::uint64_t word = 0;
    if (fstat(file.Fd(), &semaphore.status) != 0 || pread(file.Fd(), &word, sizeof word, 0) == -1) {
        FailToRead(path, errno);
    }
    semaphore.isWhole = semaphore.status.st_size == sizeof(sem_t);
    constexpr unsigned kHalf = 32;
    semaphore.value = static_cast<std::uint32_t>(word);
    semaphore.waiting = static_cast<std::uint32_t>(word >> kHalf);
    return semaphore;
}

}  // namespace qel
