#include "NamedSemaphore.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "StandardOutput.h"
#include "Sys.h"

namespace qel {
namespace {

constexpr int kOpenFlags = O_CREAT | O_RDWR | O_CLOEXEC;
constexpr unsigned kOpenMode = 0600;

std::string ErrorText() {
    return std::strerror(errno);
}

/// For a destructor: does `action`. If standard output or a substitute system call throws, nobody
/// is left to tell.
template <typename Action>
void Attempt(const Action& action) noexcept {
    try {
        action();
    } catch (...) {
        return;
    }
}

const char* TimedWaitFailure(int error) {
    switch (error) {
        case EINVAL:
            return "Error sem_timedwait EINVAL: ";
        case EDEADLK:
            return "Error sem_timedwait EDEADLK: ";
        case ETIMEDOUT:
            return "Error sem_timedwait ETIMEDOUT: ";
        default:
            return "Error sem_timedwait unknown error: ";
    }
}

}  // namespace

/// An open semaphore.
///
/// Invariant: `balance_` is what this object has posted less what it has taken, each counted after
/// the system has done it. No other memory depends on it.
class NamedSemaphore::Impl {
public:
    Impl(std::string_view name, std::shared_ptr<SysIF> sys, unsigned int value);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void Wait() const;
    void Post() const;
    void TimedWait(std::chrono::duration<double> seconds) const;
    [[nodiscard]] bool TryWait() const;
    [[nodiscard]] int GetValue() const;

private:
    [[noreturn]] void FailToOpen(int error) const;
    void Settle() const;
    void SettleBalance() const;
    void Close() const;

    std::string name_;
    mutable std::atomic<std::int64_t> balance_{0};
    sem_t* semaphore_ = nullptr;
    std::shared_ptr<SysIF> sys_;
};

NamedSemaphore::Impl::Impl(std::string_view name, std::shared_ptr<SysIF> sys, unsigned int value)
    : name_(name), sys_(sys ? std::move(sys) : std::make_shared<Sys>()) {
    semaphore_ = sys_->sem_openc(name_.c_str(), kOpenFlags, kOpenMode, value);
    if (semaphore_ == SEM_FAILED) {
        FailToOpen(errno);
    }
}

void NamedSemaphore::Impl::FailToOpen(int error) const {
    if (error == ENAMETOOLONG || error == EINVAL) {
        WriteOut("Exception: Invalid Semaphore name: " + name_ +
                 " errno: " + std::to_string(error) + "\n");
        throw std::invalid_argument("Exception: Invalid Semaphore name");
    }
    WriteOut("Exception: Problem Creating Semaphore - " + std::to_string(error) + "\n");
    throw std::runtime_error("Exception: Problem Creating Semaphore");
}

NamedSemaphore::Impl::~Impl() {
    Attempt([this] { Settle(); });
    Attempt([this] { Close(); });
}

void NamedSemaphore::Impl::Close() const {
    if (sys_->sem_close(semaphore_) == -1) {
        WriteOutLine("Error: Could not close semaphore " + name_ + "err: " + ErrorText());
    }
}

void NamedSemaphore::Impl::Settle() const {
    try {
        SettleBalance();
    } catch (...) {
        WriteOutLine("Error: Could not reset sempahore");
    }
}

void NamedSemaphore::Impl::SettleBalance() const {
    while (balance_ < 0) {
        Post();
    }
    while (balance_ >= 1) {
        Wait();
    }
}

void NamedSemaphore::Impl::Wait() const {
    int result = 0;
    do {
        result = sys_->sem_wait(semaphore_);
    } while (result == -1 && errno == EINTR);
    if (result != 0) {
        throw std::runtime_error("Error sem_wait:" + ErrorText());
    }
    --balance_;
}

void NamedSemaphore::Impl::Post() const {
    if (sys_->sem_post(semaphore_) != 0) {
        throw std::runtime_error("Error sem_post:" + ErrorText());
    }
    ++balance_;
}

void NamedSemaphore::Impl::TimedWait(std::chrono::duration<double> seconds) const {
    if (sys_->sem_timedwait(semaphore_, seconds) == -1) {
        const int error = errno;
        throw std::runtime_error(TimedWaitFailure(error) + std::string(std::strerror(error)));
    }
    --balance_;
}

bool NamedSemaphore::Impl::TryWait() const {
    while (sys_->sem_trywait(semaphore_) != 0) {
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN) {
            return false;
        }
        throw std::runtime_error("Error sem_trywait: errno != EAGAIN");
    }
    --balance_;
    return true;
}

int NamedSemaphore::Impl::GetValue() const {
    int value = 0;
    if (sys_->sem_getvalue(semaphore_, &value) == -1) {
        WriteOutLine("NamedSemaphore - sem_getvalue: failed: " + ErrorText());
    }
    return value;
}

NamedSemaphore::NamedSemaphore() = default;

NamedSemaphore::NamedSemaphore(std::string_view name, unsigned int value)
    : NamedSemaphore(name, nullptr, value) {}

NamedSemaphore::NamedSemaphore(std::string_view name, std::shared_ptr<SysIF> sys,
                               unsigned int value)
    : impl_(std::make_unique<Impl>(name, std::move(sys), value)) {}

NamedSemaphore::~NamedSemaphore() = default;
NamedSemaphore::NamedSemaphore(NamedSemaphore&& other) noexcept = default;
NamedSemaphore& NamedSemaphore::operator=(NamedSemaphore&& other) noexcept = default;

const NamedSemaphore::Impl& NamedSemaphore::Semaphore() const {
    if (!impl_) {
        throw std::runtime_error("Error: Accessed default constructed NamedSemaphore");
    }
    return *impl_;
}

void NamedSemaphore::Wait() const {
    Semaphore().Wait();
}

void NamedSemaphore::Post() const {
    Semaphore().Post();
}

void NamedSemaphore::TimedWait(std::chrono::duration<double> seconds) const {
    Semaphore().TimedWait(seconds);
}

bool NamedSemaphore::TryWait() const {
    return Semaphore().TryWait();
}

int NamedSemaphore::GetValue() const {
    return Semaphore().GetValue();
}

}  // namespace qel
