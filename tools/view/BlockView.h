#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "File.h"
#include "ProcessSurvey.h"
#include "SharedMemoryMetadata.h"

namespace qel {

/// Whether new openers can find a block.
enum class BlockCreator {
    Alive,   ///< it holds the memory file: the block can be opened
    Gone,    ///< no such process, or it has closed the descriptor
    Other,   ///< the record leads to another file: process and descriptor numbers were used again
    Hidden,  ///< the process may not be looked into by this user
};

/// What can be seen of a block without taking part in it: no lock is taken, nothing is changed.
struct BlockView {
    std::string lockFile;
    std::optional<SharedMemoryMetadata> record;  ///< nothing if none was ever written

    // The rest is known with a record only.
    BlockCreator creator = BlockCreator::Gone;
    std::optional<std::uint64_t> size;  ///< bytes of data, if anybody seen has the block open
    std::optional<bool> sealed;         ///< against shrinking; known as `size` is
    std::vector<ObjectUser> openBy;     ///< of the memory file
    unsigned hiddenProcesses = 0;       ///< may have it open as well
};

/// @return nothing if no lock file has this name
/// @throws std::runtime_error when the lock file cannot be read
[[nodiscard]] std::optional<BlockView> LookAtBlock(const std::string& name,
                                                   const ProcessSurvey& processes);

/// True if `memory` is the file of which `record` tells, by its numbers and its stamp.
[[nodiscard]] bool IsMemoryOf(const File& memory, const SharedMemoryMetadata& record);

/// "live", "stale record" (its creator has gone), "no record", or "unseen" if that cannot be told.
[[nodiscard]] std::string_view StateOf(const BlockView& block);

/// What is to be said of it behind "the creator is".
[[nodiscard]] std::string TextOf(BlockCreator creator);

[[nodiscard]] std::string TextOf(const std::string& name, const BlockView& block);

}  // namespace qel
