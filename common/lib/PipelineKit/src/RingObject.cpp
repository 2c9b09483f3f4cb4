#include "RingObject.h"

#include <utility>

#include "ShmFile.h"

namespace qel {

RingObject::RingObject(std::string name, std::uint64_t size)
    : name_(std::move(name)), maker_(getpid()) {
    RequireRingName(name_);
    RequireRingSize(size);
    const ShmFile file(name_, O_RDWR | O_CREAT | O_EXCL);
    if (!file.IsOpen()) {
        file.Fail("create", errno);
    }
    try {
        file.Reserve(size);
        const struct stat status = file.Stat();
        device_ = status.st_dev;
        inode_ = status.st_ino;
    } catch (...) {
        (void)shm_unlink(RingObjectName(name_).c_str());
        throw;
    }
}

RingObject::~RingObject() {
    try {
        Remove();
    } catch (const RingError&) {
        return;  // whoever wants to know calls Remove
    }
}

void RingObject::Remove() {
    if (!std::exchange(present_, false) || getpid() != maker_) {
        return;
    }
    const ShmFile file(name_, O_RDONLY);
    if (!file.IsOpen()) {
        if (errno == ENOENT) {
            return;
        }
        file.Fail("remove", errno);
    }
    if (const struct stat status = file.Stat();
        status.st_dev == device_ && status.st_ino == inode_) {
        Unlink(name_);
    }
}

std::optional<std::uint64_t> RingObject::FindSize(const std::string& name) {
    RequireRingName(name);
    const ShmFile file(name, O_RDONLY);
    if (!file.IsOpen()) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        file.Fail("open", errno);
    }
    const auto length = static_cast<std::uint64_t>(file.Stat().st_size);
    return length < kControlBlockSize ? 0 : length - kControlBlockSize;
}

void RingObject::Unlink(const std::string& name) {
    RequireRingName(name);
    if (shm_unlink(RingObjectName(name).c_str()) != 0) {
        throw RingError("ring " + name + ": cannot remove " + RingObjectName(name), errno);
    }
}

}  // namespace qel
