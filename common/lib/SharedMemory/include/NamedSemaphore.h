#pragma once

#include <chrono>
#include <memory>
#include <string_view>

#include "QevExport.h"
#include "SysIF.h"

namespace qel {

/// A named semaphore of the system, with a balance: what a handle has taken and given is settled
/// when the handle goes. Units that it holds are given back; units that it posted are taken back,
/// for which the destructor waits as long as it must. Who wakes another process by a post therefore
/// keeps the handle until that process has taken the unit.
///
/// The semaphore itself outlives all handles. A process that is killed settles nothing.
///
/// Processes: a handle belongs to the process that made it. A process forked from that one must
/// leave it, by exec or _exit, without destroying its copy, which would settle the balance again.
///
/// Thread use: any number of threads may use one handle, but not while it is moved or destroyed.
/// A handle without a semaphore, default-constructed or moved from, throws std::runtime_error from
/// every operation.
class QEV_EXPORT NamedSemaphore {
public:
    /// A handle without a semaphore.
    NamedSemaphore();

    /// Opens the semaphore `name`, creating it with mode 0600 when it is missing.
    /// @param name   as the system takes it: a slash and up to 251 further characters without one
    /// @param value  its value if it is created; an existing one keeps its value
    /// @throws std::invalid_argument  for a name that the system rejects
    /// @throws std::runtime_error  if the system refuses for another reason
    NamedSemaphore(std::string_view name, unsigned int value);

    /// As above, over the given system calls; an empty pointer means the real ones.
    NamedSemaphore(std::string_view name, std::shared_ptr<SysIF> sys, unsigned int value);

    /// Settles the balance and closes the semaphore. Never throws: failures are told on standard
    /// output.
    ~NamedSemaphore();

    NamedSemaphore(NamedSemaphore&& other) noexcept;
    /// Takes over the semaphore of `other`, then settles and closes the one held before.
    NamedSemaphore& operator=(NamedSemaphore&& other) noexcept;
    NamedSemaphore(const NamedSemaphore&) = delete;
    NamedSemaphore& operator=(const NamedSemaphore&) = delete;

    /// Waits for a unit and takes it; signals do not end the wait.
    /// @throws std::runtime_error  if the system refuses
    void Wait() const;

    /// Gives a unit.
    /// @throws std::runtime_error  if the system refuses
    void Post() const;

    /// As Wait, for at most `seconds`.
    /// @throws std::runtime_error  when the time is up, and if the system refuses
    void TimedWait(std::chrono::duration<double> seconds) const;

    /// Takes a unit if one is free.
    /// @return false if none is
    /// @throws std::runtime_error  if the system refuses
    [[nodiscard]] bool TryWait() const;

    /// The semaphore's value; 0, with a line on standard output, if the system refuses.
    [[nodiscard]] int GetValue() const;

private:
    class Impl;

    [[nodiscard]] const Impl& Semaphore() const;

    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
