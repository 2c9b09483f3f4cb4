#include "JudgedState.h"

#include "RingCheck.h"
#include "RingUsers.h"

namespace qel {

RingState JudgedStateOf(const RingFile& ring, const RingFields& fields, bool moves,
                        const ProcessSurvey& processes) {
    if (ring.Size() == 0) {
        return ring.Status().st_size == 0 ? RingState::Fresh : RingState::Desynchronised;
    }
    const auto& users = processes.UsersOf(ring.Status().st_dev, ring.Status().st_ino);
    const RingState state = RingStateOf(fields, ring.Size(), moves, users, processes);
    if (state == RingState::Fresh || state == RingState::NeverInitialised ||
        state == RingState::Desynchronised) {
        return state;
    }
    switch (HealthOf(ring, RingUsers::SeenOf(ring, processes))) {
        case RingHealth::Sound:
            break;
        case RingHealth::NeverInitialised:
            return RingState::NeverInitialised;
        case RingHealth::Desynchronised:
        case RingHealth::Damaged:
            return RingState::Desynchronised;
    }
    return state;
}

}  // namespace qel
