#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ByteSpan.h"
#include "File.h"
#include "IdleStrategy.h"

namespace qel {

/// Stands for standard input or output in place of a file's name.
inline constexpr const char* kStandardStream = "-";

/// A file, pipe or standard input to read from.
class InputFile {
public:
    /// @throws UsageError when it cannot be read
    explicit InputFile(std::string path);

    /// @throws UsageError unless it is a regular file, which can be read once more
    void RequireRegular() const;

    /// Fills `buffer` as far as there is input. Waits for more, but not when `stop` says true.
    /// @return bytes read; fewer than asked at the end of the input or on a stop
    /// @throws std::runtime_error when reading fails
    [[nodiscard]] std::size_t Read(const ByteSpan& buffer, const StopPredicate& stop) const;

    /// Bytes in it, for a regular file.
    [[nodiscard]] std::uint64_t Length() const;

    [[nodiscard]] int Fd() const noexcept { return file_.Fd(); }
    [[nodiscard]] const std::string& Path() const noexcept { return path_; }

private:
    std::string path_;
    File file_;
};

/// A file, pipe or standard output to write to. Made in two steps, so that arguments can be refused
/// before anything is touched.
class OutputFile {
public:
    /// Only checks: creates nothing and cuts nothing.
    /// @throws UsageError when it cannot be written
    explicit OutputFile(std::string path);

    /// @throws UsageError unless it is a regular file, a device or not there yet
    void RequireFile() const;

    /// @throws UsageError when it is the same file as `input`
    void RequireOtherThan(const InputFile& input) const;

    /// Creates the file, or empties it.
    /// @throws std::runtime_error
    void Begin();

    /// Writes all of `data`. A signal ends the wait for a slow reader if `stop` then says true.
    /// @return false when it was ended so; a part may have been written
    /// @throws std::runtime_error when writing fails
    [[nodiscard]] bool Write(const ByteSpan& data, const StopPredicate& stop) const;

    [[nodiscard]] int Fd() const noexcept { return file_.Fd(); }
    [[nodiscard]] const std::string& Path() const noexcept { return path_; }

private:
    std::string path_;
    File file_;
};

/// True if the first `length` bytes of both files are there and the same.
/// @throws std::runtime_error when reading fails
[[nodiscard]] bool SameContent(const InputFile& left, const InputFile& right, std::uint64_t length);

}  // namespace qel
