#pragma once

#include <gtest/gtest.h>
#include <semaphore.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "NamedSemaphore.h"
#include "Scenario.h"

namespace qel::test {

/// One thing done with a semaphore.
struct SemaphoreUse {
    unsigned value;                                        ///< that it has before
    std::function<void(const NamedSemaphore&)> construct;  ///< done without faults
    std::function<std::string(NamedSemaphore&)> run;
};

/// A handle on a semaphore that is there, used, and destroyed.
class SemaphoreScenario : public Scenario {
public:
    SemaphoreScenario(const World& world, SemaphoreUse use)
        : Scenario(world), use_(std::move(use)) {}

    void Prepare() override { (void)NamedSemaphore(names_.semaphore.Name(), use_.value); }
    void Construct() override {
        handle_.emplace(names_.semaphore.Name(), sys_, 0);
        use_.construct(*handle_);
    }
    std::string Run() override { return use_.run(*handle_); }
    std::string State() override { return Value(); }
    std::string Left() override { return Value(); }
    [[nodiscard]] bool CanRecover() const override { return true; }
    void Destroy() override { handle_.reset(); }
    void Again() override {
        const NamedSemaphore semaphore(names_.semaphore.Name(), sys_, 0);
        const int value = semaphore.GetValue();
        semaphore.Post();
        EXPECT_EQ(semaphore.GetValue(), value + 1);
        semaphore.Wait();
        EXPECT_EQ(semaphore.GetValue(), value);
    }

protected:
    /// The semaphore's value, past the library.
    [[nodiscard]] std::string Value() const {
        sem_t* const semaphore = ::sem_open(names_.semaphore.Name().c_str(), 0);
        if (semaphore == SEM_FAILED) {
            return "none";
        }
        int value = 0;
        ::sem_getvalue(semaphore, &value);
        ::sem_close(semaphore);
        return "value " + std::to_string(value);
    }

    SemaphoreUse use_;
    std::optional<NamedSemaphore> handle_;
};

inline void Nothing(const NamedSemaphore& /*semaphore*/) {}

inline constexpr const char* kSemPost = "sem_post()";
inline constexpr const char* kSemWait = "sem_wait()";
inline constexpr const char* kSemTryWait = "sem_trywait()";
inline constexpr const char* kSemClose = "sem_close()";

/// The lines that a handle's end writes.
inline constexpr const char* kNotSettled = "Error: Could not reset sempahore\n";
inline constexpr const char* kNotClosed =
    "Error: Could not close semaphore {SEMAPHORE}err: {strerror}\n";

inline Outcome Values(const Outcome& outcome, int state, int left) {
    return outcome.State("value " + std::to_string(state)).Left("value " + std::to_string(left));
}

}  // namespace qel::test
