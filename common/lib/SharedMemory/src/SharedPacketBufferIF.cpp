#include "SharedPacketBufferIF.h"

namespace qel {

SharedPacketBufferIF::~SharedPacketBufferIF() = default;

}  // namespace qel
