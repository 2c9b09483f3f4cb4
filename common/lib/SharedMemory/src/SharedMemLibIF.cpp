#include "SharedMemLibIF.h"

namespace qel {

class SharedMemLibIF::Impl {};

SharedMemLibIF::SharedMemLibIF() : impl_(std::make_unique<Impl>()) {}
SharedMemLibIF::~SharedMemLibIF() = default;

}  // namespace qel
