#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ProcessSurvey.h"

namespace qel {

/// An object that nobody uses any more.
struct Orphan {
    enum class Kind { Ring, Block, Semaphore };
    Kind kind = Kind::Ring;
    std::string name;
    std::string path;
    struct stat status {};
    std::optional<std::int64_t> age{};  ///< seconds
    std::string content{};              ///< "3 packets, 1234 bytes, wait in it"; empty for nothing

    [[nodiscard]] std::string ObjectText() const;  ///< "ring camera"
    [[nodiscard]] std::uint64_t Bytes() const;     ///< that it takes
};

struct OrphanSearch {
    std::vector<Orphan> orphans;
    std::vector<std::string> kept{};  ///< why others are not among them, of those asked for by name
};

/// Objects that nobody has open or mapped, be it a process that cannot be seen. Without names only
/// what is for certain an object of its kind, and was used: a ring that was reserved and not yet
/// opened is not among them, nor a file that merely has such a name.
/// @param names  of objects of any kind; none: all
/// @throws std::runtime_error when a folder cannot be read
[[nodiscard]] OrphanSearch FindOrphans(const std::vector<std::string>& names,
                                       const ProcessSurvey& processes);

/// Removes it if it is still the same and nobody has come: looks again, and keeps those away
/// meanwhile who lock it first.
/// @return why it was not removed; empty if it was
[[nodiscard]] std::string RemoveOrphan(const Orphan& orphan, const ProcessSurvey& processes);

}  // namespace qel
