#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ByteSpan.h"

namespace qel {

/// Reads a file or pipe in order, in large pieces.
///
/// Thread use: one thread at a time.
class FileSource {
public:
    /// @param fd    must stay open
    /// @param stop  true ends the wait for more
    FileSource(int fd, std::string name, std::function<bool()> stop);

    /// Fills `buffer` as far as there is input.
    /// @return bytes read; fewer than asked at the end or on a stop
    /// @throws std::runtime_error when reading fails
    [[nodiscard]] std::size_t Read(const ByteSpan& buffer);

    /// Passes over bytes of a regular file.
    /// @return false if there are fewer
    [[nodiscard]] bool Skip(std::uint64_t bytes);

private:
    [[nodiscard]] std::size_t ReadSome(unsigned char* to, std::size_t size);

    int fd_;
    std::string name_;
    std::function<bool()> stop_;
    std::vector<unsigned char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

}  // namespace qel
