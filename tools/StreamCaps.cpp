#include "StreamCaps.h"

#include "BlockView.h"
#include "CapsBlock.h"
#include "StreamNames.h"

namespace qel {

std::optional<std::string> CapsOfWriter(const std::string& name) {
    const std::string caps = StreamNames(name).caps;
    // To open a block that is not there would make its lock file.
    const auto block = LookAtBlock(caps, ProcessSurvey::Take());
    const auto state = block && block->record ? CapsBlock::Load(caps) : std::nullopt;
    return state ? std::optional(state->caps) : std::nullopt;
}

}  // namespace qel
