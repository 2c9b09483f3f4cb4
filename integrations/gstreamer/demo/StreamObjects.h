#pragma once

#include "StreamNames.h"

namespace qel {

/// What a stream's elements make under its ring's name and leave to whoever set the chain up: the
/// ring, the control ring, a wake-up semaphore for each node and the lock file of the caps block.
///
/// Thread use: one thread at a time uses one object.
class StreamObjects {
public:
    /// @throws UsageError when a ring of this name is there already
    explicit StreamObjects(const StreamNames& names);

    /// Removes what is there, when that has not been done.
    ~StreamObjects();

    StreamObjects(const StreamObjects&) = delete;
    StreamObjects& operator=(const StreamObjects&) = delete;

    /// Removes what is there. No node may run any more.
    /// @throws RingError for the first object that cannot be removed; the others are
    void Remove();

private:
    StreamNames names_;
    bool present_ = true;
};

}  // namespace qel
