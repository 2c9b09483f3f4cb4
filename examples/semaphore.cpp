// A resource of three slots that several processes share. Each user takes a slot while it works; a
// process that needs the resource for itself takes all slots in one step.

#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include "NamedSemaphore.h"
#include "SemaphoreMultiLockHelper.h"

namespace {

constexpr unsigned kSlots = 3;

/// Removes the semaphore, which would otherwise outlive all processes.
struct RemovedAtEnd {
    const std::string& name;
    ~RemovedAtEnd() { ::sem_unlink(name.c_str()); }
};

/// A user of the resource, in a process of its own: says by its exit code if it got a slot.
int Use(const std::string& name) {
    const qel::NamedSemaphore slots(name, kSlots);
    if (!slots.TryWait()) {
        std::cout << "user: no slot is free" << std::endl;
        return 1;
    }
    std::cout << "user: got a slot" << std::endl;
    return 0;
    // The end of the handle gives the slot back.
}

/// Runs this program again as a user; true if that got a slot.
bool UserGetsASlot(const std::string& name) {
    const pid_t user = ::fork();
    if (user == 0) {
        ::execl("/proc/self/exe", "semaphore", name.c_str(), nullptr);
        ::_exit(2);
    }
    int status = 0;
    return user > 0 && ::waitpid(user, &status, 0) == user && status == 0;
}

int Run(const std::string& name) {
    const RemovedAtEnd removed{name};
    qel::NamedSemaphore slots(name, kSlots);  // created by whoever comes first
    const bool usedBefore = UserGetsASlot(name);

    qel::SemaphoreMultiLockHelper all{slots, kSlots};
    all.Lock();
    std::cout << "owner: has all slots" << std::endl;
    const bool usedMeanwhile = UserGetsASlot(name);
    all.Unlock();

    const bool usedAfter = UserGetsASlot(name);
    const int free = slots.GetValue();
    std::cout << "owner: " << free << " slots are free" << std::endl;
    return usedBefore && !usedMeanwhile && usedAfter && free == kSlots ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return argc > 1 ? Use(argv[1]) : Run("/qev-example-" + std::to_string(::getpid()));
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        return 3;
    }
}
