#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>

#include "Files.h"

namespace qel::test {

/// Puts something at `path`, in whose way it is. `precious` is the path of a file beside it that
/// somebody would not like to lose. False if this process may not.
using Obstacle = bool (*)(const std::string& path, const std::string& precious);

/// What stands in a precious file: more than a lock file has.
inline const std::string kPrecious(200, 'p');

inline bool LinkTo(const std::string& path, const std::string& precious) {
    WriteFile(precious, kPrecious);
    return ::symlink(precious.c_str(), path.c_str()) == 0;
}
inline bool DanglingLink(const std::string& path, const std::string& precious) {
    return ::symlink(precious.c_str(), path.c_str()) == 0;
}
inline bool Fifo(const std::string& path, const std::string& /*precious*/) {
    return ::mkfifo(path.c_str(), 0666) == 0 && ::chmod(path.c_str(), 0666) == 0;
}
inline bool Directory(const std::string& path, const std::string& /*precious*/) {
    return ::mkdir(path.c_str(), 0777) == 0;
}
inline bool Socket(const std::string& path, const std::string& /*precious*/) {
    return ::mknod(path.c_str(), S_IFSOCK | 0666, 0) == 0;
}
/// The same as /dev/null.
inline bool Device(const std::string& path, const std::string& /*precious*/) {
    return ::mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
}
inline bool FileForNobody(const std::string& path, const std::string& /*precious*/) {
    WriteFile(path, kPrecious);
    return ::chmod(path.c_str(), 0) == 0;
}
inline bool FileToRead(const std::string& path, const std::string& /*precious*/) {
    WriteFile(path, kPrecious);
    return ::chmod(path.c_str(), 0444) == 0;
}

/// True where device files do not work.
inline bool HasNoDevices(const char* directory) {
    struct statvfs status {};
    return ::statvfs(directory, &status) == 0 && (status.f_flag & ST_NODEV) != 0;
}

/// A file that is removed at the end, whoever has made it.
class Removed {
public:
    explicit Removed(std::string path) : path_(std::move(path)), owner_(::getpid()) {}
    ~Removed() {
        if (::getpid() == owner_ && ::unlink(path_.c_str()) == -1) {
            ::rmdir(path_.c_str());
        }
    }
    Removed(const Removed&) = delete;
    Removed& operator=(const Removed&) = delete;

    [[nodiscard]] const std::string& Path() const { return path_; }
    [[nodiscard]] bool IsThere() const {
        struct stat status {};
        return ::lstat(path_.c_str(), &status) == 0;
    }

private:
    std::string path_;
    pid_t owner_;
};

}  // namespace qel::test
