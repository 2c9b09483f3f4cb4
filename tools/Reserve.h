#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "IdleStrategy.h"

namespace qel {

/// A ring's object that is to be made beforehand.
struct Reservation {
    std::string name;
    std::uint64_t size = 0;      ///< bytes of the data area
    std::optional<uid_t> owner;  ///< otherwise that of this process, and so on
    std::optional<gid_t> group;
    std::optional<mode_t> mode;  ///< exactly so; otherwise what the umask leaves of 0666
};

/// Makes the object with all its memory. It has no name until it is complete, so whatever goes
/// wrong leaves nothing, and nobody opens it before its time. The ring in it is fresh.
/// @param stop  when it says true, the object is not made
/// @return what was made, in one line; nothing if it was not
/// @throws std::runtime_error when the name is taken, memory is short, a right is missing, ...
[[nodiscard]] std::optional<std::string> Reserve(const Reservation& wanted,
                                                 const StopPredicate& stop);

}  // namespace qel
