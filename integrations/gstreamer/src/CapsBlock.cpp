#include "CapsBlock.h"

#include <cstring>
#include <stdexcept>

#include "SharedMemoryBlockReader.h"

namespace qel {

bool CapsBlock::Store(const StreamState& state) {
    const std::string text = ToText(state);
    if (text.size() >= block_.Size()) {
        return false;
    }
    block_.LockForWrite();
    std::memcpy(block_.GetDataForWrite(), text.c_str(), text.size() + 1);
    block_.UnlockForWrite();
    return true;
}

std::optional<StreamState> CapsBlock::Load(const std::string& name) {
    try {
        SharedMemoryBlockReader block(name);
        block.Lock();
        const auto* const text = reinterpret_cast<const char*>(block.GetData());
        auto state = StreamStateFromText({text, strnlen(text, block.Size())});
        block.Unlock();
        return state;
    } catch (const std::runtime_error&) {
        return std::nullopt;  // its writer has gone, or is no element
    }
}

}  // namespace qel
