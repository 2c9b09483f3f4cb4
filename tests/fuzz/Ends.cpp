#include "Ends.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace qel::fuzz {
namespace {

thread_local sigjmp_buf place;
thread_local bool isArmed = false;

[[noreturn]] void OnTerminate() {
    // A contract check ends the process without an exception; all else that ends it has one.
    if (isArmed && std::current_exception() == nullptr) {
        isArmed = false;
        siglongjmp(place, 1);
    }
    std::fputs("std::terminate was called\n", stderr);
    std::abort();
}

}  // namespace

void Fail(const std::string& reason) {
    std::fprintf(stderr, "broken rule: %s\n", reason.c_str());
    std::abort();
}

bool EndsByContract(const std::function<void()>& action) {
    std::set_terminate(OnTerminate);
    isArmed = true;
    if (sigsetjmp(place, 0) != 0) {
        return true;
    }
    action();
    isArmed = false;
    return false;
}

}  // namespace qel::fuzz
