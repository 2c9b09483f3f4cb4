#pragma once

#include <string>

namespace qel {

/// Descriptor that is closed at the end, unless it is one of the standard streams.
class File {
public:
    File() = default;
    explicit File(int fd) noexcept : fd_(fd) {}
    ~File();
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] int Fd() const noexcept { return fd_; }
    [[nodiscard]] bool IsOpen() const noexcept { return fd_ != -1; }

private:
    int fd_ = -1;
};

/// Opens for reading, with `flags` more; never waits, whatever the file is. Not open, and `errno`,
/// when that fails.
[[nodiscard]] File OpenToLook(const std::string& path, int flags = 0);

/// @throws std::runtime_error that `path` cannot be read, for `error`
[[noreturn]] void FailToRead(const std::string& path, int error);

}  // namespace qel
