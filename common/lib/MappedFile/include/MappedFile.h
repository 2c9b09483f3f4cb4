#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "FileDescriptor.h"
#include "QevExport.h"

namespace qel {

/// A regular file that is open for reading and writing and mapped, whole and shared, into memory.
///
/// An empty file is open but not mapped. Symbolic links in the last place of the path are refused,
/// so that nobody can put another file in the place of the one that is meant.
///
/// Thread use: one thread at a time; the getters may be called by many.
class QEV_EXPORT MappedFile {
public:
    /// No file: descriptor -1, nothing mapped, path empty.
    MappedFile() noexcept = default;

    /// Opens and maps the file at `path`.
    /// @param create  create it, empty, if it is missing
    /// @throws std::system_error  with the path and the reason; `errno` holds the reason as well
    MappedFile(std::string_view path, bool create);

    ~MappedFile();

    /// Leaves `other` as default-constructed.
    MappedFile(MappedFile&& other) noexcept;
    /// Closes what is held, then takes over; leaves `other` as default-constructed.
    MappedFile& operator=(MappedFile&& other) noexcept;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    /// Makes the file `length` bytes long and maps all of it. Room on the disk is really taken when
    /// the file grows, so that a full disk shows here and not as SIGBUS.
    /// @return false, with the reason in `errno` and the mapping as before, if that cannot be
    [[nodiscard]] bool TruncateTo(std::uint64_t length) noexcept;

    /// Unmaps and closes the file; the path stays readable.
    void Close() noexcept;

    [[nodiscard]] const FileDescriptor& Descriptor() const noexcept { return descriptor_; }
    /// First byte of the mapping, null if nothing is mapped.
    [[nodiscard]] unsigned char* Data() const noexcept { return data_; }
    /// Bytes mapped.
    [[nodiscard]] std::uint64_t Length() const noexcept { return length_; }
    [[nodiscard]] const std::string& Path() const noexcept { return path_; }

private:
    void Unmap() noexcept;
    void Replace(void* mapped, std::uint64_t length) noexcept;
    bool Grow(std::uint64_t length) noexcept;
    bool Shrink(std::uint64_t length) noexcept;

    std::string path_;
    FileDescriptor descriptor_;
    unsigned char* data_ = nullptr;
    std::uint64_t length_ = 0;
};

}  // namespace qel
