#include "RingFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gsl/util>
#include <utility>

#include "RingRules.h"

namespace qel {
namespace {

static_assert(kControlBlockSize == sizeof(ControlBlock));

std::uint64_t DataSize(const struct stat& status) {
    const auto length = static_cast<std::uint64_t>(status.st_size);
    return length > kControlBlockSize ? length - kControlBlockSize : 0;
}

bool ReadAll(int fd, std::uint64_t from, unsigned char* to, std::uint64_t size) noexcept {
    while (size > 0) {
        const ssize_t count = pread(fd, to, size, static_cast<off_t>(from));
        if (count > 0) {
            to += count;
            from += static_cast<std::uint64_t>(count);
            size -= static_cast<std::uint64_t>(count);
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string RingPath(const std::string& name) {
    return "/dev/shm" + RingObjectName(name);
}

std::string TooShortText(const struct stat& status) {
    return "its object has " + std::to_string(status.st_size) + " bytes, a ring more than " +
           std::to_string(kControlBlockSize);
}

PacketHeader HeaderIn(const unsigned char* bytes) noexcept {
    std::array<unsigned char, kPacketHeaderSize> copy{};
    std::copy_n(bytes, copy.size(), copy.begin());
    for (const std::size_t flag :
         {offsetof(PacketHeader, ignoreData), offsetof(PacketHeader, key)}) {
        gsl::at(copy, static_cast<gsl::index>(flag)) =
            gsl::at(copy, static_cast<gsl::index>(flag)) != 0 ? 1 : 0;
    }
    PacketHeader header;
    std::memcpy(&header, copy.data(), copy.size());
    return header;
}

std::optional<RingFile> RingFile::Open(const std::string& name) {
    const std::string path = RingPath(name);
    File file = OpenToLook(path, O_NOFOLLOW);
    if (!file.IsOpen()) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        FailToRead(path, errno);
    }
    struct stat status {};
    if (fstat(file.Fd(), &status) != 0) {
        FailToRead(path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        FailToRead(path, EINVAL);
    }
    return RingFile(name, std::move(file), status);
}

RingFile::RingFile(std::string name, File file, const struct stat& status)
    : name_(std::move(name)), file_(std::move(file)), status_(status), size_(DataSize(status)) {}

struct stat RingFile::StatusNow() const {
    struct stat status {};
    if (fstat(file_.Fd(), &status) != 0) {
        FailToRead(RingPath(name_), errno);
    }
    return status;
}

RingFields RingFile::Fields() const noexcept {
    // To map a page that the object has no memory for would give it some.
    if (page_.Data() == nullptr && size_ > 0 && lseek(file_.Fd(), 0, SEEK_DATA) == 0) {
        page_ = GuardedPage(file_.Fd());
    }
    return page_.Data() == nullptr
               ? RingFields()
               : RingFields::Of(*static_cast<const ControlBlock*>(page_.Data()));
}

std::optional<RingFields> RingFile::StableFields(unsigned tries) const noexcept {
    RingFields last = Fields();
    for (unsigned tried = 1; tried < tries; ++tried) {
        const RingFields now = Fields();
        if (now == last) {
            return now;
        }
        last = now;
    }
    return std::nullopt;
}

bool RingFile::Read(std::uint64_t offset, void* to, std::uint64_t size) const noexcept {
    if (offset > size_ || size > size_) {
        return false;
    }
    auto* const bytes = static_cast<unsigned char*>(to);
    const std::uint64_t first = std::min(size, size_ - offset);
    return ReadAll(file_.Fd(), kControlBlockSize + offset, bytes, first) &&
           ReadAll(file_.Fd(), kControlBlockSize, bytes + first, size - first);
}

std::uint64_t RingFile::NextMemory(std::uint64_t offset) const noexcept {
    if (offset >= size_) {
        return size_;
    }
    const auto from = static_cast<off_t>(kControlBlockSize + offset);
    const off_t found = lseek(file_.Fd(), from, SEEK_DATA);
    if (found == -1) {
        return errno == ENXIO ? size_ : offset;
    }
    return std::min(static_cast<std::uint64_t>(found) - kControlBlockSize, size_);
}

std::optional<PacketHeader> RingFile::HeaderAt(std::uint64_t offset) const noexcept {
    std::array<unsigned char, kPacketHeaderSize> bytes{};
    if (offset > size_ || size_ - offset < bytes.size() ||
        !Read(offset, bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    return HeaderIn(bytes.data());
}

}  // namespace qel
