#pragma once

#include <sys/mman.h>

#include <string>

#include "UniqueName.h"

namespace qel::test {

/// A ring name that no other test uses; the ring's object is removed with it.
class UniqueRingName : public UniqueName {
public:
    UniqueRingName() : UniqueName("") {}
    ~UniqueRingName() {
        if (IsOwner()) {
            ::shm_unlink(ObjectName().c_str());
        }
    }

    [[nodiscard]] std::string ObjectName() const { return "/" + Name() + ".shm"; }
    [[nodiscard]] std::string Path() const { return "/dev/shm/" + Name() + ".shm"; }
};

}  // namespace qel::test
