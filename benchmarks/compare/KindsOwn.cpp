// The ring and what the kernel offers: the program that every machine can build.

#include "KernelKinds.h"
#include "QevKinds.h"

namespace qel::bench {

std::vector<Kind> Kinds() {
    std::vector<Kind> kinds = QevKinds();
    for (const auto& more :
         {QevInPlaceKinds(), QevChainKinds(), StreamKinds(), SeqpacketKinds(), PosixQueueKinds()}) {
        kinds.insert(kinds.end(), more.begin(), more.end());
    }
    return kinds;
}

}  // namespace qel::bench
