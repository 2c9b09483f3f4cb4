// Lets a closer of its own close a descriptor.

#include <unistd.h>

#include <iostream>

#include "FileDescriptor.h"

int main() {
    int closed = -1;
    const int copy = ::dup(STDOUT_FILENO);
    {
        qel::FileDescriptor first(
            copy, std::make_unique<qel::UniqueFunction<void(int)>>([&closed](int descriptor) {
                ::close(descriptor);
                closed = descriptor;
            }));
        const qel::FileDescriptor second(std::move(first));
        if (second.Get() != copy) {
            return 1;
        }
    }
    if (copy < 0 || closed != copy) {
        return 1;
    }
    std::cout << "across\n";
    return 0;
}
