#pragma once

#include <vector>

#include "Transport.h"

namespace qel::bench {

[[nodiscard]] std::vector<Kind> StreamKinds();      ///< pipe, Unix stream
[[nodiscard]] std::vector<Kind> SeqpacketKinds();   ///< Unix seqpacket
[[nodiscard]] std::vector<Kind> PosixQueueKinds();  ///< POSIX message queue

}  // namespace qel::bench
