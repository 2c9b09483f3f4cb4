#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "RingError.h"
#include "RingRules.h"

namespace qel {

/// Descriptor of a ring's object, closed at the end.
class ShmFile {
public:
    /// Opens the object of the ring `name`; -1 and `errno` when that fails.
    ShmFile(std::string name, int flags)
        : name_(std::move(name)),
          fd_(shm_open(RingObjectName(name_).c_str(), flags | O_CLOEXEC, kMode)) {}
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
        int error = EINTR;
        while (error == EINTR) {
            error = posix_fallocate(fd_, 0, static_cast<off_t>(size + kControlBlockSize));
        }
        if (error != 0) {
            Fail("reserve " + std::to_string(size + kControlBlockSize) + " bytes for", error);
        }
    }

private:
    // What the library itself asks for, so that it makes no difference who comes first.
    static constexpr mode_t kMode = 0666;

    std::string name_;
    int fd_;
};

}  // namespace qel
