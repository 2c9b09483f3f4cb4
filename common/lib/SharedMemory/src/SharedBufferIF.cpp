#include "SharedBufferIF.h"

#include <ostream>

namespace qel {

class SharedBufferIF::Impl {};

SharedBufferIF::SharedBufferIF() : impl_(std::make_unique<Impl>()) {}
SharedBufferIF::~SharedBufferIF() = default;

std::ostream& operator<<(std::ostream& stream, const SharedBufferIF::BufferInfo& info) {
    return stream << "shmName: " << info.shmName << " shmSize: " << info.shmSize
                  << " nodeIdx: " << unsigned{info.nodeIdx} << " sink: " << info.sink
                  << " maxFrames: " << info.maxFrames;
}

}  // namespace qel
