#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

namespace qel {

/// A system call on a ring or a chain failed. The text names the object, what was tried and the
/// error, as in "ring demo: cannot create /demo.shm: 17(File exists)".
class RingError : public std::runtime_error {
public:
    /// @param error  an `errno`
    RingError(const std::string& text, int error)
        : std::runtime_error(text + ": " + std::to_string(error) + "(" + std::strerror(error) +
                             ")"),
          error_(error) {}

    /// The `errno` of the failure.
    [[nodiscard]] int Errno() const noexcept { return error_; }

private:
    int error_;
};

}  // namespace qel
