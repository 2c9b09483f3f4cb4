#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace qel::test {

/// A ring name that no other test uses; the ring's object is removed with it.
class UniqueRingName {
public:
    UniqueRingName()
        : name_("qev-test-" + std::to_string(::getpid()) + "-" + std::to_string(Next())) {}
    ~UniqueRingName() { ::shm_unlink(ObjectName().c_str()); }
    UniqueRingName(const UniqueRingName&) = delete;
    UniqueRingName& operator=(const UniqueRingName&) = delete;

    [[nodiscard]] const std::string& Name() const { return name_; }
    [[nodiscard]] std::string ObjectName() const { return "/" + name_ + ".shm"; }
    [[nodiscard]] std::string Path() const { return "/dev/shm/" + name_ + ".shm"; }

private:
    static int Next() {
        static std::atomic<int> count{0};
        return count++;
    }

    std::string name_;
};

}  // namespace qel::test
