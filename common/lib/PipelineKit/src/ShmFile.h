#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>

#include "RingError.h"
#include "RingRules.h"

namespace qel {

/// Descriptor of a ring's object, closed at the end.
class ShmFile {
public:
    /// Opens the object of the ring `name`; -1 and `errno` when that fails. Does not wait for the
    /// other end of a FIFO that stands in the object's place, but for a lease to be given back, by
    /// which somebody asks at this moment who uses the ring.
    ShmFile(std::string name, int flags)
        : name_(std::move(name)), fd_(Open(flags | O_CLOEXEC | O_NONBLOCK)) {
        if (fd_ == -1 && errno == EWOULDBLOCK) {
            fd_ = Open(flags | O_CLOEXEC);
        }
    }
    ~ShmFile() {
        if (IsOpen()) {
            (void)close(fd_);
        }
    }
    ShmFile(const ShmFile&) = delete;
    ShmFile& operator=(const ShmFile&) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return fd_ != -1; }
    [[nodiscard]] int Fd() const noexcept { return fd_; }

    [[noreturn]] void Fail(const std::string& what, int error) const {
        throw RingError("ring " + name_ + ": cannot " + what + " " + RingObjectName(name_), error);
    }

    [[nodiscard]] struct stat Stat() const {
        struct stat status {};
        if (fstat(fd_, &status) != 0) {
            Fail("look at", errno);
        }
        return status;
    }

    /// Gives the object memory for a data area of `size` bytes; what it holds stays.
    void Reserve(std::uint64_t size) const {
        // What is interrupted has reserved nothing, and on older kernels every signal interrupts:
        // of a large object, the part that is done between two signals is done first. From the end,
        // which gives the object its whole length at once.
        constexpr off_t kLeastPart = 1 << 16;
        const auto length = static_cast<off_t>(size + kControlBlockSize);
        off_t part = length;
        for (off_t left = length; left > 0;) {
            part = std::min(part, left);
            const int error = posix_fallocate(fd_, left - part, part);
            if (error == 0) {
                left -= part;
            } else if (error == EINTR) {
                part = std::max(part / 2, kLeastPart);
            } else {
                Fail("reserve " + std::to_string(length) + " bytes for", error);
            }
        }
    }

private:
    [[nodiscard]] int Open(int flags) const noexcept {
        return shm_open(RingObjectName(name_).c_str(), flags, kMode);
    }

    // What the library itself asks for, so that it makes no difference who comes first.
    static constexpr mode_t kMode = 0666;

    std::string name_;
    int fd_;
};

}  // namespace qel
