#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "File.h"
#include "GuardedPage.h"
#include "PacketHeader.h"
#include "RingFields.h"

namespace qel {

/// Where the object of the ring `name` stands in the file system.
[[nodiscard]] std::string RingPath(const std::string& name);

/// What to say of an object that has no room for a ring.
[[nodiscard]] std::string TooShortText(const struct stat& status);

/// The header in the bytes from `bytes` on; a flag that holds what no flag can counts as set.
[[nodiscard]] PacketHeader HeaderIn(const unsigned char* bytes) noexcept;

/// A ring's object, to be looked at: nothing in it changes, no node is taken, and no memory is
/// given to it. Nothing that the object holds, nor what others do to it meanwhile, can do harm:
///  - the control block is read through a mapping of the object's first page; if the object is cut
///    meanwhile, the fields read as 0;
///  - the data area is read by calls, which give fewer bytes then.
///
/// Thread use: one thread at a time uses one object.
class RingFile {
public:
    /// @return nothing when there is no object of this name
    /// @throws std::runtime_error when it may not be opened, or what stands there is no file
    [[nodiscard]] static std::optional<RingFile> Open(const std::string& name);

    [[nodiscard]] const std::string& Name() const noexcept { return name_; }

    /// The object as it was at opening.
    [[nodiscard]] const struct stat& Status() const noexcept { return status_; }

    /// The object as it is now.
    /// @throws std::runtime_error
    [[nodiscard]] struct stat StatusNow() const;

    /// Bytes of the data area at opening; 0 for an object shorter than a control block.
    [[nodiscard]] std::uint64_t Size() const noexcept { return size_; }

    /// Loads the control block once.
    [[nodiscard]] RingFields Fields() const noexcept;

    /// Loads it until two times in a row give the same.
    /// @param tries  at most so often
    /// @return nothing if it has changed all the while
    [[nodiscard]] std::optional<RingFields> StableFields(unsigned tries = 100) const noexcept;

    /// Copies `size` bytes of the data area from `offset` on, and on from its start where it ends.
    /// @return false if not all of them are there, or `size` is more than the data area has
    [[nodiscard]] bool Read(std::uint64_t offset, void* to, std::uint64_t size) const noexcept;

    /// The first place of the data area, from `offset` on, that the object has been given memory
    /// for and that was written; the data area's size if there is none. Ahead of it all bytes are
    /// 0.
    [[nodiscard]] std::uint64_t NextMemory(std::uint64_t offset) const noexcept;

    /// The header that stands at `offset`; nothing if there is no room for one up to the end of the
    /// data area. Its length is not checked against anything.
    [[nodiscard]] std::optional<PacketHeader> HeaderAt(std::uint64_t offset) const noexcept;

private:
    RingFile(std::string name, File file, const struct stat& status);

    std::string name_;
    File file_;
    struct stat status_;
    std::uint64_t size_;
    mutable GuardedPage page_;  ///< mapped as soon as the object has memory there
};

}  // namespace qel
