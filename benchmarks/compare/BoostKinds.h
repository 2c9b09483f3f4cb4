#pragma once

#include <vector>

#include "Transport.h"

namespace qel::bench {

[[nodiscard]] std::vector<Kind> BoostQueueKinds();  ///< Boost.Interprocess message_queue
[[nodiscard]] std::vector<Kind> BoostSlotKinds();   ///< boost::lockfree::spsc_queue

}  // namespace qel::bench
