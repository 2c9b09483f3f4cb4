#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "LockFileBase.h"

namespace qel {

/// A lock file: a lock between the threads of all processes that open one path, and one record of
/// type `T` that stands in the file and is read and written under the lock.
///
/// The file:
///
///     offset 0        1              8
///            +--------+--------------+-----------------+
///            | is set | 0 (7 bytes)  | T, sizeof(T)    |
///            +--------+--------------+-----------------+
///
/// Thread rules and invariants: see LockFileBase. Read needs any lock, Write the exclusive one.
template <typename T>
class LockFileIOBase : public LockFileBase {
    static_assert(std::is_trivially_copyable_v<T>, "the record is copied byte by byte");
    static_assert(alignof(T) <= 8);

public:
    /// Offset of the record in the file.
    static constexpr std::uint64_t kRecordOffset = 8;
    /// Length of the file.
    static constexpr std::uint64_t kFileLength = kRecordOffset + sizeof(T);

    /// Opens the file at `path`, creating it when it is missing, and gives it its length. A file
    /// that cannot be opened leaves an object that every operation refuses; `errno` tells why.
    /// @throws std::runtime_error  if the file cannot be given its length
    explicit LockFileIOBase(std::string_view path) : LockFileBase(path) {
        const bool mapped = file_.Length() != 0;
        if (!file_.Descriptor().IsOpen() ||
            (mapped && (file_.Data() == nullptr || file_.Length() == kFileLength))) {
            return;
        }
        if (!file_.TruncateTo(kFileLength)) {
            lock_file_log::Fail("LockFileIOBase", __LINE__,
                                "Failed to truncate lock file to correct length");
        }
    }

    /// True if the file is open, mapped and exactly as long as it should be.
    [[nodiscard]] bool IsReadable() const {
        return file_.Descriptor().IsOpen() && file_.Data() != nullptr &&
               file_.Length() == kFileLength;
    }

    /// Copies `length` bytes of the record, from `offset` on, to `destination`.
    /// @return false, with `destination` untouched, if no record has ever been written
    /// @throws std::runtime_error  for an unreadable file, without a lock, or out of range
    [[nodiscard]] bool Read(void* destination, std::uint64_t length, std::uint64_t offset) const {
        if (!IsReadable()) {
            lock_file_log::Fail("Read", __LINE__,
                                "Attempted to lock invalid LockFile " + file_.Path());
        }
        if (sharedHolders_ < 1 && !exclusive_) {
            lock_file_log::Fail("Read", __LINE__, "Read called while not locked");
        }
        if (!InRange(length, offset)) {
            lock_file_log::Fail("Read", __LINE__, "Read out of range for type");
        }
        if (file_.Data()[0] == 0) {
            lock_file_log::Warn(
                "Read", __LINE__,
                "tried to read lock file " + file_.Path() + " value but no value has been set");
            return false;
        }
        std::copy_n(file_.Data() + kRecordOffset + offset, length,
                    static_cast<unsigned char*>(destination));
        return true;
    }

    /// Copies `length` bytes from `source` into the record at `offset` and marks it as set.
    /// @return false if the file is not mapped
    /// @throws std::runtime_error  for an unusable file, without the exclusive lock, out of range,
    ///                             or if the file cannot be given its length
    [[nodiscard]] bool Write(const void* source, std::uint64_t length, std::uint64_t offset) {
        if (!IsUsable()) {
            lock_file_log::Fail("Write", __LINE__,
                                "Attempted to lock invalid LockFile " + file_.Path());
        }
        if (!exclusive_) {
            lock_file_log::Fail("Write", __LINE__, "Write called while not locked for write");
        }
        if (!InRange(length, offset)) {
            lock_file_log::Fail("Write", __LINE__, "Write out of range for type");
        }
        if (file_.Length() != kFileLength && !file_.TruncateTo(kFileLength)) {
            lock_file_log::Fail("Write", __LINE__, "Failed to truncate file to specified length");
        }
        if (file_.Data() == nullptr) {
            return false;
        }
        std::copy_n(static_cast<const unsigned char*>(source), length,
                    file_.Data() + kRecordOffset + offset);
        file_.Data()[0] = 1;
        return true;
    }

private:
    /// Written so that no sum can overflow.
    [[nodiscard]] static bool InRange(std::uint64_t length, std::uint64_t offset) {
        return length <= sizeof(T) && offset <= sizeof(T) - length;
    }
};

}  // namespace qel
