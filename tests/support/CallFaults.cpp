#include "CallFaults.h"

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
#include <iterator>

#include "CallWrapping.h"

namespace qel::test {
namespace {

std::atomic<CallFaults*> active{nullptr};
thread_local bool unseen = false;  // a wrapper's own work is not recorded

}  // namespace

CallFaults* Recorder() {
    return unseen ? nullptr : active.load();
}

std::string PathOf(int descriptor) {
    std::array<char, 4096> target{};
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(),
                                      target.data(), target.size());
    return length < 0 ? std::to_string(descriptor)
                      : std::string(target.data(), static_cast<std::size_t>(length));
}

CallFaults::Unseen::Unseen() : before_(unseen) {
    unseen = true;
}

CallFaults::Unseen::~Unseen() {
    unseen = before_;
}

namespace {

/// Something whose end runs `action`, unseen by the recorder.
std::shared_ptr<void> AtTheEnd(std::function<void()> action) {
    return {nullptr, [action = std::move(action)](void* /*unused*/) {
                const int error = errno;
                const CallFaults::Unseen unrecorded;
                action();
                errno = error;
            }};
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

void CallFaults::FailFrom(const std::string& operation, int nth, int error, int calls) {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.emplace(operation, Planned{nth, {false, -1, error, {}, {}}, calls});
}

void CallFaults::Lift() {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.clear();
}

int CallFaults::Refusals() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return refusals_;
}

void CallFaults::Owe(std::function<void()> call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    owed_.push_back(std::move(call));
}

void CallFaults::MakeUpForRefused() {
    std::vector<std::function<void()>> owed;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        owed.swap(owed_);
    }
    const Unseen unrecorded;
    for (const auto& call : owed) {
        call();
    }
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

void CallFaults::AfterNth(const std::string& operation, int nth, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    plans_.emplace(operation, Planned{nth, {true, 0, 0, {}, {}}, 1, std::move(action)});
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
        if (--plan->second.countdown <= 0) {
            verdict = plan->second.verdict;
            if (plan->second.after) {
                verdict.after = AtTheEnd(plan->second.after);
            }
            plan = --plan->second.calls == 0 ? plans_.erase(plan) : std::next(plan);
        } else {
            ++plan;
        }
    }
    refusals_ += verdict.make ? 0 : 1;
    return verdict;
}

}  // namespace qel::test

using qel::test::Ask;
using qel::test::List;
using qel::test::Next;
using qel::test::PathOf;

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
        const std::string call = List(PathOf(descriptor), command);
        return command == F_SETFD || command == F_SETFL
                   ? List(call, static_cast<int>(reinterpret_cast<std::intptr_t>(argument)))
                   : call;
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
    if (!verdict.make) {
        qel::test::Owe([address, length] { next(address, length); });
        return static_cast<int>(verdict.result);
    }
    return next(address, length);
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

// Whatever close reports, the descriptor is gone.
QEV_WRAPPER int close(int descriptor) {
    const auto verdict = Ask("close", [&] { return PathOf(descriptor); });
    static auto* const next = Next<int(int)>("close");
    const int result = next(descriptor);
    if (verdict.make) {
        return result;
    }
    errno = verdict.error;
    return static_cast<int>(verdict.result);
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
    qel::test::CallFaults::Verdict verdict;
    if (number == SYS_memfd_create) {
        verdict = Ask("memfd_create", [&] {
            // NOLINTNEXTLINE(performance-no-int-to-ptr)
            return List(reinterpret_cast<const char*>(arguments[0]), arguments[1]);
        });
    }
    if (!verdict.make) {
        return verdict.result;
    }
    return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                arguments[5]);
}
