// Takes the units of a semaphore of its own, one by one and all together.

#include <semaphore.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include "SemaphoreMultiLockHelper.h"

namespace {

struct RemovedAtEnd {
    const std::string& name;
    ~RemovedAtEnd() { ::sem_unlink(name.c_str()); }
};

bool UnitsAreCounted(const std::string& name) {
    qel::NamedSemaphore slots(name, 3);
    qel::SemaphoreMultiLockHelper all{slots, 3};
    all.Lock();
    const qel::NamedSemaphore other(name, 0);
    const bool noneLeft = !other.TryWait() && other.GetValue() == 0;
    all.Unlock();
    other.Wait();
    const bool notEnough = !all.TryLock() && slots.GetValue() == 2;
    other.Post();
    return noneLeft && notEnough && slots.GetValue() == 3;
}

}  // namespace

int main() {
    const std::string name = "/qev-test-semaphore-client-" + std::to_string(::getpid());
    const RemovedAtEnd removed{name};
    try {
        if (!UnitsAreCounted(name)) {
            return 1;
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    std::cout << "across\n";
    return 0;
}
