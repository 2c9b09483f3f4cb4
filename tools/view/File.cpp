#include "File.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

namespace qel {

File::~File() {
    if (fd_ > STDERR_FILENO) {
        (void)close(fd_);
    }
}

File::File(File&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

File& File::operator=(File&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

File OpenToLook(const std::string& path, int flags) {
    return File(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags));
}

void FailToRead(const std::string& path, int error) {
    throw std::runtime_error(
        fmt::format("cannot read {}: {}({})", path, error, std::strerror(error)));
}

}  // namespace qel
