#include "FileAge.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>

namespace qel {

std::optional<std::int64_t> AgeOf(const std::string& path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_CTIME, &status) !=
        0) {
        return std::nullopt;
    }
    const bool isKept = (status.stx_mask & STATX_BTIME) != 0;
    return std::time(nullptr) - (isKept ? status.stx_btime : status.stx_ctime).tv_sec;
}

}  // namespace qel
