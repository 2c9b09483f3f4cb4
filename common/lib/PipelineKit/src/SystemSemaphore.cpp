#include "SystemSemaphore.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace qel {
namespace {

constexpr mode_t kMode = 0600;  // as the library makes them

/// The system maps a semaphore's file unseen; one that is too short would end the process.
bool IsTooShort(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size < static_cast<off_t>(sizeof(sem_t));
}

/// The steady clock is CLOCK_MONOTONIC.
timespec TimeSpecOf(SystemSemaphore::Deadline deadline) {
    const auto sinceStart = deadline.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceStart);
    return {seconds.count(), std::chrono::nanoseconds(sinceStart - seconds).count()};
}

}  // namespace

SystemSemaphore::SystemSemaphore(std::string name, IfMissing ifMissing)
    : name_(std::move(name)), semaphore_(SEM_FAILED) {
    if (IsTooShort(PathOf(name_))) {
        throw std::runtime_error(PathOf(name_) + " is damaged: too short for a semaphore");
    }
    const int flags = ifMissing == IfMissing::Create ? O_CREAT : 0;
    semaphore_ = sem_open(("/" + name_).c_str(), flags, kMode, 0U);
    if (semaphore_ == SEM_FAILED) {
        Fail("open", errno);
    }
}

SystemSemaphore::~SystemSemaphore() {
    (void)sem_close(semaphore_);
}

std::string SystemSemaphore::PathOf(const std::string& name) {
    return "/dev/shm/sem." + name;
}

int SystemSemaphore::Value() const {
    int value = 0;
    if (sem_getvalue(semaphore_, &value) != 0) {
        Fail("look at", errno);
    }
    return value;
}

void SystemSemaphore::Post() const {
    if (sem_post(semaphore_) != 0) {
        Fail("post to", errno);
    }
}

void SystemSemaphore::Signal() const {
    // What is signalled must not come after the look at the value, see TakeFor.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (Value() == 0) {
        Post();
    }
}

bool SystemSemaphore::TryTake() const {
    while (sem_trywait(semaphore_) != 0) {
        if (errno == EAGAIN) {
            return false;
        }
        if (errno != EINTR) {
            Fail("take from", errno);
        }
    }
    return true;
}

bool SystemSemaphore::Take(const std::optional<Deadline>& deadline,
                           const StopPredicate& stop) const {
    // A wait without end could miss a request to stop that comes just before it.
    constexpr auto kSlice = std::chrono::milliseconds(100);
    while (!stop()) {
        const auto sliceEnd = std::chrono::steady_clock::now() + kSlice;
        const bool isLast = deadline && *deadline <= sliceEnd;
        const timespec until = TimeSpecOf(isLast ? *deadline : sliceEnd);
        if (sem_clockwait(semaphore_, CLOCK_MONOTONIC, &until) == 0) {
            return true;
        }
        if (errno == ETIMEDOUT && isLast) {
            return false;
        }
        if (errno != ETIMEDOUT && errno != EINTR) {
            Fail("take from", errno);
        }
    }
    return false;
}

bool SystemSemaphore::TakeFor(std::chrono::microseconds limit) const {
    constexpr std::chrono::microseconds kLongest = std::chrono::hours(24);  // no sum overflows
    const auto until = TimeSpecOf(std::chrono::steady_clock::now() +
                                  std::clamp(limit, std::chrono::microseconds(0), kLongest));
    if (sem_clockwait(semaphore_, CLOCK_MONOTONIC, &until) != 0) {
        if (errno != ETIMEDOUT && errno != EINTR) {
            Fail("take from", errno);
        }
        return false;
    }
    // Pairs with the fence of Signal: a signal that met the unit taken here, and so posted none,
    // has its cause seen by whatever this thread looks at next.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return true;
}

void SystemSemaphore::Fail(const char* what, int error) const {
    throw std::runtime_error("cannot " + std::string(what) + " semaphore /" + name_ + ": " +
                             std::to_string(error) + "(" + std::strerror(error) + ")");
}

}  // namespace qel
