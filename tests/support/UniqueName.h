#pragma once

#include <unistd.h>

#include <atomic>
#include <string>

namespace qel::test {

/// A name that no other test uses, for an object that is removed with it. Base of the classes that
/// know how to remove theirs.
class UniqueName {
public:
    UniqueName(const UniqueName&) = delete;
    UniqueName& operator=(const UniqueName&) = delete;

    [[nodiscard]] const std::string& Name() const { return name_; }

protected:
    explicit UniqueName(const std::string& prefix)
        : owner_(::getpid()),
          name_(prefix + "qev-test-" + std::to_string(owner_) + "-" + std::to_string(Next())) {}
    ~UniqueName() = default;

    /// False in a forked process, which leaves its parent's object alone.
    [[nodiscard]] bool IsOwner() const { return owner_ == ::getpid(); }

private:
    static int Next() {
        static std::atomic<int> count{0};
        return count++;
    }

    pid_t owner_;
    std::string name_;
};

}  // namespace qel::test
