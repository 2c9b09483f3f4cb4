#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace qel {

/// A ring's shared-memory object, made beforehand by whoever starts a chain and removed at its end.
///
/// The object is made exclusively, so nobody's ring is taken over, and all its memory is reserved
/// at once: a full /dev/shm is an error here and not a bus error at the first write. The ring in it
/// is still fresh, the first who opens it initialises it.
///
/// What a crash leaves: a maker that is killed leaves the object behind. A forked child may hold a
/// copy, but only the process that made the object removes it.
///
/// Thread use: one thread at a time uses one object.
class RingObject {
public:
    /// Makes the object of the ring `name` with a data area of `size` bytes.
    /// @throws std::invalid_argument for a bad name or size, see RingRules.h
    /// @throws RingError when it exists already (`EEXIST`), memory is short (`ENOSPC`), ...
    RingObject(std::string name, std::uint64_t size);

    /// Removes the object if that has not been done.
    ~RingObject();

    RingObject(const RingObject&) = delete;
    RingObject& operator=(const RingObject&) = delete;

    /// Removes the object's name; the memory goes with its last mapping. An object that somebody
    /// else has put under the name meanwhile is left alone. Does nothing the second time.
    /// @throws RingError when the object cannot be removed
    void Remove();

    /// Bytes of the data area of the ring `name`, or nothing when there is no such object. A file
    /// shorter than a control block counts as 0 bytes.
    /// @throws RingError when that cannot be found out, as for lack of permission
    [[nodiscard]] static std::optional<std::uint64_t> FindSize(const std::string& name);

    /// Removes the object of the ring `name`, whoever made it.
    /// @throws RingError
    static void Unlink(const std::string& name);

private:
    std::string name_;
    pid_t maker_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool present_ = true;
};

}  // namespace qel
