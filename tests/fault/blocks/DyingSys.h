#pragma once

#include <semaphore.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Sys.h"

namespace qel::test {

/// The system calls on semaphores, recorded. The process can be killed ahead of any of them or
/// right after it.
class DyingSys : public Sys {
public:
    void KillBefore(std::size_t call) { before_ = call; }
    void KillAfter(std::size_t call) { after_ = call; }
    /// Starts counting; the first call from now has the number 0.
    void Start() { isOn_ = true; }

    [[nodiscard]] const std::vector<std::string>& Calls() const { return calls_; }

private:
    template <typename Call>
    auto Make(const char* name, const Call& call) {
        const std::size_t number = calls_.size();
        if (isOn_) {
            calls_.emplace_back(name);
        }
        DieIf(isOn_ && number == before_);
        const auto result = call();
        DieIf(isOn_ && number == after_);
        return result;
    }
    static void DieIf(bool now) {
        if (now) {
            ::kill(::getpid(), SIGKILL);
            ::pause();
        }
    }

    sem_t* DoSemOpenc(const char* name, int flags, unsigned int mode, unsigned int value) override {
        return Make("sem_open", [&] { return real_.sem_openc(name, flags, mode, value); });
    }
    int DoSemClose(sem_t* sem) override {
        return Make("sem_close", [&] { return real_.sem_close(sem); });
    }
    int DoSemPost(sem_t* sem) override {
        return Make("sem_post", [&] { return real_.sem_post(sem); });
    }
    int DoSemTimedwait(sem_t* sem, std::chrono::duration<double> timeout) override {
        return Make("sem_timedwait", [&] { return real_.sem_timedwait(sem, timeout); });
    }
    int DoSemWait(sem_t* sem) override {
        return Make("sem_wait", [&] { return real_.sem_wait(sem); });
    }
    int DoSemTryWait(sem_t* sem) override {
        return Make("sem_trywait", [&] { return real_.sem_trywait(sem); });
    }
    int DoSemGetValue(sem_t* sem, int* value) override {
        return Make("sem_getvalue", [&] { return real_.sem_getvalue(sem, value); });
    }

    static constexpr std::size_t kNever = ~std::size_t{0};
    Sys real_;
    std::vector<std::string> calls_;
    std::size_t before_ = kNever;
    std::size_t after_ = kNever;
    bool isOn_ = false;
};

}  // namespace qel::test
