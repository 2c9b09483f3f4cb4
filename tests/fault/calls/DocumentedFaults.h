#pragma once

#include <string>
#include <vector>

namespace qel::test {

/// What a call reports in place of doing its work.
struct Fault {
    int error = 0;     ///< its errno
    long result = -1;  ///< without an errno: what it returns, as a read that ends early
};

/// Everything that `operation` can report: the errors of its Linux manual page, those that POSIX
/// adds, and those that file systems are known to pass on. Empty for an unknown operation.
[[nodiscard]] const std::vector<Fault>& DocumentedFaults(const std::string& operation);

}  // namespace qel::test
