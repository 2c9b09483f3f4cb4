#include "Writers.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>

#include "File.h"

namespace qel {

Writers WritersOf(const std::string& path) noexcept {
    const File file = OpenToLook(path, O_NOFOLLOW);
    if (!file.IsOpen()) {
        return Writers::Unknown;
    }
    // The signal that tells of an opener is one that does nothing.
    if (fcntl(file.Fd(), F_SETSIG, SIGURG) != 0 || fcntl(file.Fd(), F_SETLEASE, F_RDLCK) != 0) {
        return errno == EAGAIN ? Writers::Some : Writers::Unknown;
    }
    (void)fcntl(file.Fd(), F_SETLEASE, F_UNLCK);
    return Writers::None;
}

}  // namespace qel
