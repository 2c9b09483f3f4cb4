#pragma once

#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace qel::test {

/// A semaphore name that no other test uses; the semaphore is removed with it.
class UniqueSemaphoreName {
public:
    UniqueSemaphoreName()
        : owner_(::getpid()),
          name_("/qev-test-" + std::to_string(owner_) + "-" + std::to_string(Next())) {}
    ~UniqueSemaphoreName() {
        if (owner_ == ::getpid()) {  // a forked process leaves its parent's semaphore alone
            ::sem_unlink(name_.c_str());
        }
    }
    UniqueSemaphoreName(const UniqueSemaphoreName&) = delete;
    UniqueSemaphoreName& operator=(const UniqueSemaphoreName&) = delete;

    [[nodiscard]] const std::string& Name() const { return name_; }

private:
    static int Next() {
        static std::atomic<int> count{0};
        return count++;
    }

    pid_t owner_;
    std::string name_;
};

}  // namespace qel::test
