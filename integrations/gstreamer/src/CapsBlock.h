#pragma once

#include <optional>
#include <string>

#include "SharedMemoryBlockWriter.h"
#include "StreamState.h"

namespace qel {

/// The block in which a writer keeps the present state of its stream for readers that come late.
/// It can be found as long as the writer lives.
///
/// Thread use: one thread at a time.
class CapsBlock {
public:
    /// @throws as SharedMemoryBlockWriter
    explicit CapsBlock(const std::string& name) : block_(name, kSize) {}

    /// @return false if the state is larger than the block: what was there stays
    /// @throws std::runtime_error when the block cannot be locked
    bool Store(const StreamState& state);

    /// The state that the block `name` holds; nothing if there is no block, or none in it.
    [[nodiscard]] static std::optional<StreamState> Load(const std::string& name);

private:
    /// Bytes; memory is taken for what is used only. Some formats put whole headers into the caps.
    static constexpr unsigned long kSize = 1 << 20;

    SharedMemoryBlockWriter block_;
};

}  // namespace qel
