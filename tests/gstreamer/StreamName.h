#pragma once

#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "UniqueName.h"

namespace qel::test {

/// A stream's name that no other test uses; whatever a stream leaves is removed with it.
class UniqueStreamName : public UniqueName {
public:
    UniqueStreamName() : UniqueName("") {}
    ~UniqueStreamName() {
        if (IsOwner()) {
            Remove();
        }
    }

    void Remove() const {
        for (const char* const ring : {".shm", ".ctl.shm"}) {
            ::shm_unlink(("/" + Name() + ring).c_str());
        }
        for (int node = 0; node <= 5; ++node) {
            ::sem_unlink(("/" + Name() + ".node" + std::to_string(node)).c_str());
        }
        ::unlink(("/tmp/" + Name() + ".caps_shm.lock").c_str());
    }
};

}  // namespace qel::test
