#pragma once

#include <semaphore.h>

#include <chrono>
#include <optional>
#include <string>

#include "IdleStrategy.h"

namespace qel {

/// A named semaphore as the system has it: what is taken and posted stays so when the process ends,
/// where the library's own handle would settle it.
///
/// Thread use: any number of threads and processes use one semaphore at the same time; a handle may
/// be shared by threads.
///
/// What a crash leaves: the semaphore with its value. It is never unlinked from here.
class SystemSemaphore {
public:
    using Deadline = std::chrono::steady_clock::time_point;
    enum class IfMissing { Create, Refuse };

    /// @param name  without a slash; a semaphore that is created has the value 0
    /// @throws std::runtime_error when it cannot be opened, or its file is damaged
    SystemSemaphore(std::string name, IfMissing ifMissing);
    ~SystemSemaphore();
    SystemSemaphore(const SystemSemaphore&) = delete;
    SystemSemaphore& operator=(const SystemSemaphore&) = delete;

    /// Where the semaphore `name` stands.
    [[nodiscard]] static std::string PathOf(const std::string& name);

    /// Units that are free at this moment.
    [[nodiscard]] int Value() const;

    /// Gives a unit.
    /// @throws std::runtime_error when its value is the highest possible
    void Post() const;

    /// Gives a unit unless one is free, so that the value of a semaphore that only wakes somebody
    /// up does not grow while nobody waits. Several that signal at the same moment may give one
    /// each. Whoever takes the unit with `TakeFor` sees what was done before the signal, even if
    /// the unit was an earlier one.
    void Signal() const;

    /// @return false if no unit is free
    [[nodiscard]] bool TryTake() const;

    /// Waits for a unit and takes it.
    /// @param deadline  none: no limit
    /// @return false if the time is up or `stop` says true
    [[nodiscard]] bool Take(const std::optional<Deadline>& deadline,
                            const StopPredicate& stop) const;

    /// Waits for a unit once and takes it.
    /// @param limit  longest wait, at most a day; 0 or less: takes a unit that is free
    /// @return false if the time is up or a signal handler has interrupted the wait
    [[nodiscard]] bool TakeFor(std::chrono::microseconds limit) const;

private:
    [[noreturn]] void Fail(const char* what, int error) const;

    std::string name_;
    sem_t* semaphore_;
};

}  // namespace qel
