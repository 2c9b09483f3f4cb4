#include "NodeClaim.h"

#include <fcntl.h>

#include <cerrno>

#include "RingInfo.h"
#include "ShmFile.h"

namespace qel {

NodeClaim::NodeClaim(const std::string& ringName, unsigned node) {
    RequireRingName(ringName);
    RequireNode(node);
    object_ = std::make_unique<const ShmFile>(ringName, O_RDWR);
    if (!object_->IsOpen()) {
        object_->Fail("open", errno);
    }
    struct flock byte {};
    byte.l_type = F_WRLCK;
    byte.l_whence = SEEK_SET;
    byte.l_start = node;
    byte.l_len = 1;
    // Of the open file: a lock of the process would not hold against other users in it, and would
    // go with any other descriptor of the object that the process closes.
    if (fcntl(object_->Fd(), F_OFD_SETLK, &byte) != 0) {
        if (errno == EAGAIN || errno == EACCES) {
            throw NodeTaken(ringName, node);
        }
        object_->Fail("claim node " + std::to_string(node) + " of", errno);
    }
}

NodeClaim::~NodeClaim() = default;

}  // namespace qel
