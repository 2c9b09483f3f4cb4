#pragma once

#include <unistd.h>

#include <atomic>
#include <string>

namespace qel::test {

/// A block name that no other test uses; the block's lock file is removed with it.
class UniqueBlockName {
public:
    UniqueBlockName()
        : owner_(::getpid()),
          name_("qev-test-" + std::to_string(owner_) + "-" + std::to_string(Next())) {}
    ~UniqueBlockName() {
        if (owner_ == ::getpid()) {  // a forked process leaves its parent's file alone
            ::unlink(LockPath().c_str());
        }
    }
    UniqueBlockName(const UniqueBlockName&) = delete;
    UniqueBlockName& operator=(const UniqueBlockName&) = delete;

    [[nodiscard]] const std::string& Name() const { return name_; }
    [[nodiscard]] std::string LockPath() const { return "/tmp/" + name_ + "_shm.lock"; }
    /// The name that labels the block's memory file.
    [[nodiscard]] std::string MemoryName() const { return "/" + name_ + ".shm"; }

private:
    static int Next() {
        static std::atomic<int> count{0};
        return count++;
    }

    pid_t owner_;
    std::string name_;
};

}  // namespace qel::test
