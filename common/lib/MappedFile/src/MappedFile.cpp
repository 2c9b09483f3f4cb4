#include "MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace qel {
namespace {

constexpr mode_t kCreateMode = 0666;  // narrowed by the process's umask

[[noreturn]] void Fail(const char* what, const std::string& path, int error) {
    errno = error;
    throw std::system_error(error, std::generic_category(),
                            std::string("MappedFile: could not ") + what + " " + path);
}

/// @return null for a length of 0; `MAP_FAILED`, with `errno`, if the system refuses
void* MapShared(int descriptor, std::uint64_t length) noexcept {
    if (length == 0) {
        return nullptr;
    }
    return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
}

/// @return 0, or the reason why the disk has no room for `length` bytes
int TakeRoom(int descriptor, std::uint64_t length) noexcept {
    if (length == 0) {
        return 0;
    }
    int error = 0;
    do {
        error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(length));
    } while (error == EINTR);
    return error;
}

}  // namespace

MappedFile::MappedFile(std::string_view path, bool create) : path_(path) {
    const int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0);
    descriptor_ = FileDescriptor(::open(path_.c_str(), flags, kCreateMode));
    if (!descriptor_.IsOpen()) {
        Fail("open", path_, errno);
    }
    struct stat status {};
    if (::fstat(descriptor_.Get(), &status) == -1) {
        Fail("examine", path_, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        Fail("use as a regular file", path_, EINVAL);
    }
    void* const mapped = MapShared(descriptor_.Get(), static_cast<std::uint64_t>(status.st_size));
    if (mapped == MAP_FAILED) {
        Fail("map", path_, errno);
    }
    Replace(mapped, static_cast<std::uint64_t>(status.st_size));
}

MappedFile::~MappedFile() {
    Close();
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : path_(std::exchange(other.path_, {})),
      descriptor_(std::move(other.descriptor_)),
      data_(std::exchange(other.data_, nullptr)),
      length_(std::exchange(other.length_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    if (this != &other) {
        Close();
        path_ = std::exchange(other.path_, {});
        descriptor_ = std::move(other.descriptor_);
        data_ = std::exchange(other.data_, nullptr);
        length_ = std::exchange(other.length_, 0);
    }
    return *this;
}

bool MappedFile::TruncateTo(std::uint64_t length) noexcept {
    if (!descriptor_.IsOpen()) {
        errno = EBADF;
        return false;
    }
    if (length > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
        errno = EFBIG;
        return false;
    }
    return length < length_ ? Shrink(length) : Grow(length);
}

bool MappedFile::Grow(std::uint64_t length) noexcept {
    const int descriptor = descriptor_.Get();
    if (const int error = TakeRoom(descriptor, length); error != 0) {
        errno = error;
        return false;
    }
    // Cuts off what another process may have added behind our mapping.
    if (::ftruncate(descriptor, static_cast<off_t>(length)) == -1) {
        return false;
    }
    void* const mapped = MapShared(descriptor, length);
    if (mapped == MAP_FAILED) {
        return false;  // a file longer than its mapping does no harm
    }
    Replace(mapped, length);
    return true;
}

bool MappedFile::Shrink(std::uint64_t length) noexcept {
    // Maps first: a mapping longer than its file would be a trap.
    void* const mapped = MapShared(descriptor_.Get(), length);
    if (mapped == MAP_FAILED) {
        return false;
    }
    if (::ftruncate(descriptor_.Get(), static_cast<off_t>(length)) == -1) {
        const int error = errno;
        if (mapped != nullptr) {
            ::munmap(mapped, length);
        }
        errno = error;
        return false;
    }
    Replace(mapped, length);
    return true;
}

void MappedFile::Replace(void* mapped, std::uint64_t length) noexcept {
    Unmap();
    data_ = static_cast<unsigned char*>(mapped);
    length_ = length;
}

void MappedFile::Close() noexcept {
    Unmap();
    descriptor_ = FileDescriptor();
}

void MappedFile::Unmap() noexcept {
    if (data_ != nullptr) {
        ::munmap(data_, length_);
    }
    data_ = nullptr;
    length_ = 0;
}

}  // namespace qel
