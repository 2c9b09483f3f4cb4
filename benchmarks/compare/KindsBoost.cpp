#include "BoostKinds.h"

namespace qel::bench {

std::vector<Kind> Kinds() {
    std::vector<Kind> kinds = BoostQueueKinds();
    for (const Kind& kind : BoostSlotKinds()) {
        kinds.push_back(kind);
    }
    return kinds;
}

}  // namespace qel::bench
