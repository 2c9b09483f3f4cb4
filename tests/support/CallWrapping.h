#pragma once

/// @file
/// What wrappers of system calls are made of, see CallFaults.h.

#include <dlfcn.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include "CallFaults.h"

/// A wrapper takes the place of the C library's function, for shared libraries too.
#define QEV_WRAPPER extern "C" __attribute__((visibility("default")))

namespace qel::test {

/// Who records this thread's calls now, null for nobody.
[[nodiscard]] CallFaults* Recorder();

/// The C library's function of that name.
template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// What a descriptor stands for.
[[nodiscard]] std::string PathOf(int descriptor);

template <typename... Numbers>
std::string List(const std::string& first, Numbers... numbers) {
    return (first + ... + (", " + std::to_string(numbers)));
}

/// For a substitute of the system calls: asks the recorder, with `arguments` made only if there is
/// one, and sets errno if the call is refused.
template <typename Arguments>
CallFaults::Verdict AskAsSubstitute(const char* operation, const Arguments& arguments) {
    CallFaults* const faults = Recorder();
    if (faults == nullptr) {
        return {};
    }
    const int error = errno;
    CallFaults::Verdict verdict;
    {
        const CallFaults::Unseen unrecorded;
        verdict = faults->Note(operation, arguments());
        if (verdict.before) {
            verdict.before();
        }
    }
    errno = verdict.error != 0 ? verdict.error : error;
    return verdict;
}

/// The same for a wrapper of the C library's function.
template <typename Arguments>
CallFaults::Verdict Ask(const char* operation, const Arguments& arguments) {
    CallFaults* const faults = Recorder();
    return faults == nullptr || faults->IgnoresDirectCalls()
               ? CallFaults::Verdict{}
               : AskAsSubstitute(operation, arguments);
}

/// Notes what a refused call would have given back; keeps errno.
inline void Owe(std::function<void()> call) {
    const int error = errno;
    if (CallFaults* const faults = Recorder()) {
        faults->Owe(std::move(call));
    }
    errno = error;
}

}  // namespace qel::test
