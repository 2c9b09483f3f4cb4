#include "SysIF.h"

namespace qel {

class SysIF::Impl {};

SysIF::SysIF() : impl_(std::make_unique<Impl>()) {}
SysIF::~SysIF() = default;

}  // namespace qel
