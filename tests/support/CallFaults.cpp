#include "CallFaults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>

namespace qel::test {
namespace {

std::atomic<CallFaults*> active{nullptr};
thread_local bool inside = false;  // a wrapper's own work is not recorded

/// The C library's function of that name.
template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string PathOf(int descriptor) {
    std::array<char, 4096> target{};
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(),
                                      target.data(), target.size());
    return length < 0 ? std::to_string(descriptor)
                      : std::string(target.data(), static_cast<std::size_t>(length));
}

template <typename... Numbers>
std::string List(const std::string& first, Numbers... numbers) {
    return (first + ... + (", " + std::to_string(numbers)));
}

/// Asks the active recorder, with `arguments` made only if there is one.
template <typename Arguments>
CallFaults::Verdict Ask(const char* operation, const Arguments& arguments) {
    CallFaults* const faults = active.load();
    if (faults == nullptr || inside) {
        return {};
    }
    const int error = errno;
    inside = true;
    CallFaults::Verdict verdict = faults->Note(operation, arguments());
    if (verdict.before) {
        verdict.before();
    }
    inside = false;
    errno = verdict.error != 0 ? verdict.error : error;
    return verdict;
}

}  // namespace

CallFaults::CallFaults() {
    active = this;
}

CallFaults::~CallFaults() {
    active = nullptr;
}

void CallFaults::FailNth(const std::string& operation, int nth, int error) {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.emplace(operation, Planned{nth, {false, -1, error, {}, {}}});
}

void CallFaults::AnswerNth(const std::string& operation, int nth, long result) {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.emplace(operation, Planned{nth, {false, result, 0, {}, {}}});
}

void CallFaults::EditNthFstat(int nth, std::function<void(struct stat&)> edit) {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.emplace("fstat", Planned{nth, {true, 0, 0, std::move(edit), {}}});
}

void CallFaults::BeforeNth(const std::string& operation, int nth, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.emplace(operation, Planned{nth, {true, 0, 0, {}, std::move(action)}});
}

void CallFaults::Alias(const std::string& text, const std::string& alias) {
    const std::lock_guard<std::mutex> lock(mutex_);
    aliases_.emplace_back(text, alias);
}

std::vector<std::string> CallFaults::Calls() const {
    return Calls("");
}

std::vector<std::string> CallFaults::Calls(const std::string& operation) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> calls;
    for (const auto& [name, arguments] : calls_) {
        if (operation.empty() || name == operation) {
            calls.push_back(std::string(name).append("(").append(arguments).append(")"));
        }
    }
    return calls;
}

void CallFaults::ForgetCalls() {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
}

CallFaults::Verdict CallFaults::Note(const std::string& operation, const std::string& arguments) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string shown = arguments;
    for (const auto& [text, alias] : aliases_) {
        if (const auto at = shown.find(text); at != std::string::npos) {
            shown.replace(at, text.size(), alias);
        }
    }
    calls_.emplace_back(operation, shown);
    Verdict verdict;
    const auto [first, last] = plans_.equal_range(operation);
    for (auto plan = first; plan != last;) {
        if (--plan->second.countdown == 0) {
            verdict = plan->second.verdict;
            plan = plans_.erase(plan);
        } else {
            ++plan;
        }
    }
    return verdict;
}

}  // namespace qel::test

using qel::test::Ask;
using qel::test::List;
using qel::test::Next;
using qel::test::PathOf;

#define QEV_WRAPPER extern "C" __attribute__((visibility("default")))

QEV_WRAPPER int open(const char* path, int flags, ...) {
    std::va_list rest;
    va_start(rest, flags);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, a line above
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    const auto verdict = Ask("open", [&] { return List(path, flags, mode); });
    static auto* const next = Next<int(const char*, int, ...)>("open");
    return verdict.make ? next(path, flags, mode) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int stat(const char* path, struct stat* status) noexcept {
    const auto verdict = Ask("stat", [&] { return std::string(path); });
    static auto* const next = Next<int(const char*, struct stat*)>("stat");
    return verdict.make ? next(path, status) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int fstat(int descriptor, struct stat* status) noexcept {
    const auto verdict = Ask("fstat", [&] { return PathOf(descriptor); });
    static auto* const next = Next<int(int, struct stat*)>("fstat");
    if (!verdict.make) {
        return static_cast<int>(verdict.result);
    }
    const int result = next(descriptor, status);
    if (verdict.edit) {
        verdict.edit(*status);
    }
    return result;
}

QEV_WRAPPER ssize_t pread(int descriptor, void* bytes, std::size_t length, off_t offset) {
    const auto verdict = Ask("pread", [&] { return List(PathOf(descriptor), length, offset); });
    static auto* const next = Next<ssize_t(int, void*, std::size_t, off_t)>("pread");
    return verdict.make ? next(descriptor, bytes, length, offset) : verdict.result;
}

QEV_WRAPPER int fcntl(int descriptor, int command, ...) {
    std::va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    const auto verdict = Ask("fcntl", [&] {
        return List(PathOf(descriptor), command,
                    static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
    });
    static auto* const next = Next<int(int, int, ...)>("fcntl");
    return verdict.make ? next(descriptor, command, argument) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int mprotect(void* address, std::size_t length, int protection) noexcept {
    const auto verdict = Ask("mprotect", [&] { return List(std::to_string(length), protection); });
    static auto* const next = Next<int(void*, std::size_t, int)>("mprotect");
    return verdict.make ? next(address, length, protection) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int flock(int descriptor, int operation) noexcept {
    const auto verdict = Ask("flock", [&] { return List(PathOf(descriptor), operation); });
    static auto* const next = Next<int(int, int)>("flock");
    return verdict.make ? next(descriptor, operation) : static_cast<int>(verdict.result);
}

QEV_WRAPPER void* mmap(void* address, std::size_t length, int protection, int flags, int descriptor,
                       off_t offset) noexcept {
    const auto verdict = Ask("mmap", [&] {
        return List(std::to_string(length), protection, flags) + ", " +
               List(PathOf(descriptor), offset);
    });
    static auto* const next = Next<void*(void*, std::size_t, int, int, int, off_t)>("mmap");
    if (!verdict.make) {
        return reinterpret_cast<void*>(verdict.result);  // NOLINT(performance-no-int-to-ptr)
    }
    return next(address, length, protection, flags, descriptor, offset);
}

QEV_WRAPPER int munmap(void* address, std::size_t length) noexcept {
    const auto verdict = Ask("munmap", [&] { return std::to_string(length); });
    static auto* const next = Next<int(void*, std::size_t)>("munmap");
    return verdict.make ? next(address, length) : static_cast<int>(verdict.result);
}

QEV_WRAPPER int ftruncate(int descriptor, off_t length) noexcept {
    const auto verdict = Ask("ftruncate", [&] { return List(PathOf(descriptor), length); });
    static auto* const next = Next<int(int, off_t)>("ftruncate");
    return verdict.make ? next(descriptor, length) : static_cast<int>(verdict.result);
}

// Returns its error instead of setting errno.
QEV_WRAPPER int posix_fallocate(int descriptor, off_t offset, off_t length) {
    const int before = errno;
    const auto verdict =
        Ask("posix_fallocate", [&] { return List(PathOf(descriptor), offset, length); });
    errno = before;
    static auto* const next = Next<int(int, off_t, off_t)>("posix_fallocate");
    return verdict.make ? next(descriptor, offset, length) : verdict.error;
}

// Never refused: whatever close reports, the descriptor is gone.
QEV_WRAPPER int close(int descriptor) {
    (void)Ask("close", [&] { return PathOf(descriptor); });
    static auto* const next = Next<int(int)>("close");
    return next(descriptor);
}

// Reads as many arguments as the widest call has, whether its caller gave them or not.
QEV_WRAPPER __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
    std::array<long, 6> arguments{};
    std::va_list rest;
    va_start(rest, number);
    for (long& argument : arguments) {
        argument = va_arg(rest, long);  // NOLINT(clang-analyzer-valist.Uninitialized)
    }
    va_end(rest);
    static auto* const next = Next<long(long, ...)>("syscall");
    if (number == SYS_memfd_create) {
        const auto verdict = Ask("memfd_create", [&] {
            // NOLINTNEXTLINE(performance-no-int-to-ptr)
            return List(reinterpret_cast<const char*>(arguments[0]), arguments[1]);
        });
        if (!verdict.make) {
            return verdict.result;
        }
    }
    return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                arguments[5]);
}
