#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace qel::fuzz {

/// Ends the process, as the fuzzer wants it, with the reason on standard error.
[[noreturn]] void Fail(const std::string& reason);

/// A rule that holds whatever the input is.
inline void Require(bool holds, const char* rule) {
    if (!holds) {
        Fail(rule);
    }
}

/// Reads every byte, so that a sanitizer or the hardware sees where they lie.
inline void Touch(const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        (void)*static_cast<const volatile unsigned char*>(bytes + i);
    }
}

/// Runs `action`. True if a contract check ended it, which elsewhere ends the process.
///
/// The check calls `std::terminate`, and from its handler execution jumps back here: `action` and
/// what it calls must own nothing at that point. Every other call of `std::terminate` is a
/// failure.
bool EndsByContract(const std::function<void()>& action);

}  // namespace qel::fuzz

/// Runs one input. It leaves the process as it was.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);
