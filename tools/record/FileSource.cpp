#include "FileSource.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "File.h"

namespace qel {
namespace {

constexpr std::size_t kPiece = 256U << 10U;

}  // namespace

FileSource::FileSource(int fd, std::string name, std::function<bool()> stop)
    : fd_(fd), name_(std::move(name)), stop_(std::move(stop)), buffer_(kPiece) {}

std::size_t FileSource::ReadSome(unsigned char* to, std::size_t size) {
    constexpr int kPollMilliseconds = 100;
    while (!stop_()) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, kPollMilliseconds) <= 0) {
            continue;
        }
        const ssize_t count = read(fd_, to, size);
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        if (errno != EINTR && errno != EAGAIN) {
            FailToRead(name_, errno);
        }
    }
    return 0;
}

std::size_t FileSource::Read(const ByteSpan& buffer) {
    std::size_t done = 0;
    while (done < buffer.size()) {
        const std::size_t missing = buffer.size() - done;
        if (begin_ == end_ && missing >= buffer_.size()) {
            const std::size_t count = ReadSome(buffer.data() + done, missing);
            if (count == 0) {
                break;
            }
            done += count;
            continue;
        }
        if (begin_ == end_) {
            begin_ = 0;
            end_ = ReadSome(buffer_.data(), buffer_.size());
            if (end_ == 0) {
                break;
            }
        }
        const std::size_t count = std::min(missing, end_ - begin_);
        std::memcpy(buffer.data() + done, buffer_.data() + begin_, count);
        begin_ += count;
        done += count;
    }
    return done;
}

bool FileSource::Skip(std::uint64_t bytes) {
    const std::uint64_t here = std::min<std::uint64_t>(bytes, end_ - begin_);
    begin_ += here;
    bytes -= here;
    if (bytes == 0) {
        return true;
    }
    struct stat status {};
    const off_t place = lseek(fd_, 0, SEEK_CUR);
    if (place == -1 || fstat(fd_, &status) != 0) {
        FailToRead(name_, errno);
    }
    const auto left = static_cast<std::uint64_t>(std::max<off_t>(status.st_size - place, 0));
    return bytes <= left && lseek(fd_, static_cast<off_t>(bytes), SEEK_CUR) != -1;
}

}  // namespace qel
