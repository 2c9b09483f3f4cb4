#pragma once

#include <unistd.h>

#include <string>

#include "UniqueName.h"

namespace qel::test {

/// A block name that no other test uses; the block's lock file is removed with it.
class UniqueBlockName : public UniqueName {
public:
    UniqueBlockName() : UniqueName("") {}
    ~UniqueBlockName() {
        if (IsOwner()) {
            ::unlink(LockPath().c_str());
        }
    }

    [[nodiscard]] std::string LockPath() const { return "/tmp/" + Name() + "_shm.lock"; }
    /// The name that labels the block's memory file.
    [[nodiscard]] std::string MemoryName() const { return "/" + Name() + ".shm"; }
};

}  // namespace qel::test
