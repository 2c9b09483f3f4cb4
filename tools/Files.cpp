#include "Files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "CommandLine.h"

namespace qel {
namespace {

constexpr int kPollMilliseconds = 100;

std::string Reason(const char* what, const std::string& path, int error) {
    return fmt::format("cannot {} {}: {}({})", what, path, error, std::strerror(error));
}

/// Whether a standard stream may be used in the `direction`, O_RDONLY or O_WRONLY.
bool IsOpenFor(int stream, int direction) {
    const int flags = fcntl(stream, F_GETFL);
    return flags != -1 && ((flags & O_ACCMODE) == direction || (flags & O_ACCMODE) == O_RDWR);
}

struct stat StatOf(int fd, const std::string& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        throw std::runtime_error(Reason("look at", path, errno));
    }
    return status;
}

/// The folder that a new file at `path` would be in.
std::string FolderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

/// Reads at `offset` until `buffer` is full or the file ends.
std::size_t ReadAt(int fd, const ByteSpan& buffer, std::uint64_t offset, const std::string& path) {
    std::size_t done = 0;
    while (done < buffer.size()) {
        const ssize_t count = pread(fd, buffer.data() + done, buffer.size() - done,
                                    static_cast<off_t>(offset + done));
        if (count == 0) {
            break;
        }
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            throw std::runtime_error(Reason("read", path, errno));
        }
    }
    return done;
}

}  // namespace

InputFile::InputFile(std::string path) : path_(std::move(path)) {
    if (path_ == kStandardStream) {
        path_ = "standard input";
        if (!IsOpenFor(STDIN_FILENO, O_RDONLY)) {
            throw UsageError(Reason("read", path_, EBADF));
        }
        file_ = File(STDIN_FILENO);
    } else {
        file_ = File(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    }
    struct stat status {};
    if (!file_.IsOpen() || fstat(file_.Fd(), &status) != 0) {
        throw UsageError(Reason("read", path_, errno));
    }
    if (S_ISDIR(status.st_mode)) {
        throw UsageError(Reason("read", path_, EISDIR));
    }
}

void InputFile::RequireRegular() const {
    if (!S_ISREG(StatOf(file_.Fd(), path_).st_mode)) {
        throw UsageError(fmt::format("cannot compare with {}: it is not a regular file", path_));
    }
}

std::uint64_t InputFile::Length() const {
    return static_cast<std::uint64_t>(StatOf(file_.Fd(), path_).st_size);
}

std::size_t InputFile::Read(const ByteSpan& buffer, const StopPredicate& stop) const {
    std::size_t done = 0;
    while (done < buffer.size() && !stop()) {
        // A read that waits could miss a request to stop that comes just before it.
        pollfd ready{file_.Fd(), POLLIN, 0};
        if (poll(&ready, 1, kPollMilliseconds) <= 0) {
            continue;
        }
        const ssize_t count = read(file_.Fd(), buffer.data() + done, buffer.size() - done);
        if (count == 0) {
            break;
        }
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            throw std::runtime_error(Reason("read", path_, errno));
        }
    }
    return done;
}

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
    if (path_ == kStandardStream) {
        path_ = "standard output";
        if (!IsOpenFor(STDOUT_FILENO, O_WRONLY)) {
            throw UsageError(Reason("write", path_, EBADF));
        }
        file_ = File(STDOUT_FILENO);
        return;
    }
    struct stat status {};
    if (stat(path_.c_str(), &status) == 0) {
        if (S_ISFIFO(status.st_mode)) {
            return;  // to open it is to wait for its reader
        }
        file_ = File(open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
        if (!file_.IsOpen()) {
            throw UsageError(Reason("write", path_, errno));
        }
        return;
    }
    const bool canBeMade =
        errno == ENOENT && !path_.empty() && access(FolderOf(path_).c_str(), W_OK | X_OK) == 0;
    if (!canBeMade) {
        throw UsageError(Reason("write", path_, errno));
    }
}

void OutputFile::RequireFile() const {
    if (file_.Fd() == STDOUT_FILENO) {
        throw UsageError("the output must be a file with a name");
    }
    struct stat status {};
    const bool present = stat(path_.c_str(), &status) == 0;
    if (present && !S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
        throw UsageError(fmt::format("cannot compare with {}: it is not a regular file", path_));
    }
}

void OutputFile::RequireOtherThan(const InputFile& input) const {
    if (!file_.IsOpen()) {
        return;
    }
    const struct stat mine = StatOf(file_.Fd(), path_);
    const struct stat other = StatOf(input.Fd(), input.Path());
    if (mine.st_dev == other.st_dev && mine.st_ino == other.st_ino) {
        throw UsageError(fmt::format("{} and {} are the same file", input.Path(), path_));
    }
}

void OutputFile::Begin() {
    if (!file_.IsOpen()) {
        file_ = File(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (!file_.IsOpen()) {
            throw std::runtime_error(Reason("create", path_, errno));
        }
        return;
    }
    const bool isNamed = file_.Fd() > STDERR_FILENO;  // what a shell has opened is left as it is
    if (isNamed && S_ISREG(StatOf(file_.Fd(), path_).st_mode) && ftruncate(file_.Fd(), 0) != 0) {
        throw std::runtime_error(Reason("empty", path_, errno));
    }
}

bool OutputFile::Write(const ByteSpan& data, const StopPredicate& stop) const {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t count = write(file_.Fd(), data.data() + done, data.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            pollfd ready{file_.Fd(), POLLOUT, 0};
            (void)poll(&ready, 1, kPollMilliseconds);
        } else if (errno != EINTR) {
            throw std::runtime_error(Reason("write", path_, errno));
        }
        // Also when a part was written: that is how a signal ends a long write.
        if (done < data.size() && stop()) {
            return false;
        }
    }
    return true;
}

bool SameContent(const InputFile& left, const InputFile& right, std::uint64_t length) {
    constexpr std::size_t kChunk = 1U << 20U;
    std::vector<unsigned char> leftBytes(kChunk);
    std::vector<unsigned char> rightBytes(kChunk);
    for (std::uint64_t offset = 0; offset < length; offset += kChunk) {
        const std::size_t chunk = std::min<std::uint64_t>(kChunk, length - offset);
        const bool whole =
            ReadAt(left.Fd(), {leftBytes.data(), chunk}, offset, left.Path()) == chunk &&
            ReadAt(right.Fd(), {rightBytes.data(), chunk}, offset, right.Path()) == chunk;
        if (!whole || std::memcmp(leftBytes.data(), rightBytes.data(), chunk) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace qel
