#pragma once

#include <semaphore.h>

#include <chrono>
#include <optional>
#include <string>

#include "IdleStrategy.h"

namespace qel {

/// A named semaphore as the system has it: what is taken and posted stays so when the command ends.
/// The library's own handle would settle it.
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

    [[nodiscard]] int Value() const;

    /// @throws std::runtime_error when its value is the highest possible
    void Post() const;

    /// @return false if no unit is free
    [[nodiscard]] bool TryTake() const;

    /// Waits for a unit and takes it.
    /// @param deadline  none: no limit
    /// @return false if the time is up or `stop` says true
    [[nodiscard]] bool Take(const std::optional<Deadline>& deadline,
                            const StopPredicate& stop) const;

private:
    [[noreturn]] void Fail(const char* what, int error) const;

    std::string name_;
    sem_t* semaphore_;
};

}  // namespace qel
