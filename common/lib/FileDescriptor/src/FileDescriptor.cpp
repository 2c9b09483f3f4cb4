#include "FileDescriptor.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qel {

FileDescriptor::FileDescriptor(int descriptor, Closer closer) noexcept
    : descriptor_(descriptor), closer_(std::move(closer)) {}

FileDescriptor::~FileDescriptor() {
    Close();
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), closer_(std::move(other.closer_)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        Close();
        descriptor_ = std::exchange(other.descriptor_, -1);
        closer_ = std::move(other.closer_);
    }
    return *this;
}

void FileDescriptor::Close() noexcept {
    if (!IsOpen()) {
        return;
    }
    const int descriptor = std::exchange(descriptor_, -1);
    const int error = errno;  // often runs while a failure is on its way to be reported
    try {
        if (closer_ && *closer_) {
            (*closer_)(descriptor);
        } else {
            ::close(descriptor);
        }
    } catch (...) {
        // The descriptor is the closer's by now; there is nothing to undo and nobody to tell.
        errno = error;
        return;
    }
    errno = error;
}

}  // namespace qel
