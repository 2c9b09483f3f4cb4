#include "RingState.h"

#include <algorithm>

#include "RingFlow.h"

namespace qel {

RingState RingStateOf(const RingFields& fields, std::uint64_t size, bool moves,
                      const std::vector<ObjectUser>& users, const ProcessSurvey& processes) {
    if (fields.initialised == 0) {
        return RingState::Fresh;
    }
    if (fields.LookNeverInitialised()) {
        return RingState::NeverInitialised;
    }
    if (!FlowOf(fields, size, LastNodeReached(fields, size))) {
        return RingState::Desynchronised;
    }
    if (moves) {
        return RingState::Live;
    }
    if (std::any_of(users.begin(), users.end(),
                    [](const ObjectUser& user) { return user.CanWrite(); })) {
        return RingState::Idle;
    }
    // What nobody uses that can be seen, nobody may be said to use only if all can be.
    return processes.SeesAll() ? RingState::Orphaned : RingState::Unseen;
}

std::string_view TextOf(RingState state) {
    switch (state) {
        case RingState::Live:
            return "live";
        case RingState::Idle:
            return "idle";
        case RingState::Orphaned:
            return "orphaned";
        case RingState::Unseen:
            return "unseen";
        case RingState::Fresh:
            return "fresh";
        case RingState::NeverInitialised:
            return "never initialised";
        case RingState::Desynchronised:
            break;
    }
    return "desynchronised";
}

}  // namespace qel
