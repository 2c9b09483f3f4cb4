#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

namespace qel::test {

/// The control block of a segment as it stands in the object's file, read by its fixed offsets and
/// without the library.
class SegmentFile {
public:
    static constexpr std::uint64_t kControlSize = 152;

    explicit SegmentFile(const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd == -1) {
            throw std::system_error(errno, std::generic_category(), path);
        }
        struct stat status {};
        const bool complete =
            ::pread(fd, bytes_.data(), bytes_.size(), 0) == static_cast<ssize_t>(bytes_.size()) &&
            ::fstat(fd, &status) == 0;
        ::close(fd);
        if (!complete) {
            throw std::runtime_error(path + " is too short for a segment");
        }
        length_ = static_cast<std::uint64_t>(status.st_size);
    }

    [[nodiscard]] std::uint64_t Length() const { return length_; }
    [[nodiscard]] std::uint64_t Avail(std::size_t node) const {
        return Number<std::uint64_t>(8 * node);
    }
    [[nodiscard]] std::uint64_t WriteIndex(std::size_t node) const {
        return Number<std::uint64_t>(40 + 8 * node);
    }
    [[nodiscard]] std::uint64_t ReadIndex(std::size_t node) const {
        return Number<std::uint64_t>(80 + 8 * node);
    }
    [[nodiscard]] std::uint32_t NumPackets() const { return Number<std::uint32_t>(120); }
    [[nodiscard]] unsigned Initialised() const { return bytes_.at(124); }
    [[nodiscard]] std::uint32_t MaxPackets() const { return Number<std::uint32_t>(128); }
    [[nodiscard]] std::uint64_t HalfSize() const { return Number<std::uint64_t>(136); }
    [[nodiscard]] std::uint64_t QuarterSize() const { return Number<std::uint64_t>(144); }

    /// The whole control block.
    [[nodiscard]] const std::array<unsigned char, kControlSize>& Bytes() const { return bytes_; }

private:
    template <typename T>
    [[nodiscard]] T Number(std::size_t offset) const {
        T number{};
        std::memcpy(&number, &bytes_.at(offset), sizeof(number));
        return number;
    }

    std::array<unsigned char, kControlSize> bytes_{};
    std::uint64_t length_ = 0;
};

}  // namespace qel::test
