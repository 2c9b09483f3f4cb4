#pragma once

#include <semaphore.h>

#include "UniqueName.h"

namespace qel::test {

/// A semaphore name that no other test uses; the semaphore is removed with it.
class UniqueSemaphoreName : public UniqueName {
public:
    UniqueSemaphoreName() : UniqueName("/") {}
    ~UniqueSemaphoreName() {
        if (IsOwner()) {
            ::sem_unlink(Name().c_str());
        }
    }
};

}  // namespace qel::test
