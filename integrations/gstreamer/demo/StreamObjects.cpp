#include "StreamObjects.h"

#include <fmt/format.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <exception>
#include <initializer_list>
#include <optional>
#include <string>

#include "CommandLine.h"
#include "NodeCounters.h"
#include "RingError.h"
#include "RingObject.h"
#include "SharedMemoryMetadata.h"

namespace qel {

StreamObjects::StreamObjects(const StreamNames& names) : names_(names) {
    if (RingObject::FindSize(names_.ring)) {
        throw UsageError(fmt::format(
            "there is a ring {0}; remove /dev/shm/{0}.shm if nobody uses it", names_.ring));
    }
}

StreamObjects::~StreamObjects() {
    if (!present_) {
        return;
    }
    try {
        Remove();
    } catch (const std::exception&) {  // another failure is being told already
    }
}

void StreamObjects::Remove() {
    present_ = false;
    std::optional<RingError> failure;
    const auto note = [&failure](const std::string& object, int result) {
        const int error = errno;
        if (result != 0 && error != ENOENT && !failure) {
            failure.emplace(fmt::format("cannot remove {}", object), error);
        }
    };
    for (const std::string& name : {names_.ring, names_.control}) {
        try {
            if (RingObject::FindSize(name)) {
                RingObject::Unlink(name);
            }
        } catch (const RingError& error) {
            failure = failure ? failure : error;
        }
    }
    for (std::size_t node = 0; node < kChainLength; ++node) {
        const std::string name = "/" + names_.WakeUp(static_cast<unsigned>(node));
        note("the semaphore " + name, sem_unlink(name.c_str()));
    }
    const std::string lockFile = BlockLockPath(names_.caps);
    note(lockFile, unlink(lockFile.c_str()));
    if (failure) {
        throw RingError(*failure);
    }
}

}  // namespace qel
