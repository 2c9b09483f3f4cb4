#include "SharedMemoryBlockReader.h"

#include <stdexcept>
#include <utility>

#include "SharedMemoryBlock.h"
#include "Sys.h"

namespace qel {

class SharedMemoryBlockReader::Impl : public SharedMemoryBlock {
public:
    Impl(std::shared_ptr<SysIF> sys, std::string_view name)
        : SharedMemoryBlock(std::move(sys), name, false, 0) {}
};

SharedMemoryBlockReader::SharedMemoryBlockReader() = default;

SharedMemoryBlockReader::SharedMemoryBlockReader(std::string_view name)
    : SharedMemoryBlockReader(std::make_shared<Sys>(), name) {}

SharedMemoryBlockReader::SharedMemoryBlockReader(std::shared_ptr<SysIF> sys, std::string_view name)
    : impl_(std::make_unique<Impl>(std::move(sys), name)) {}

SharedMemoryBlockReader::~SharedMemoryBlockReader() = default;

SharedMemoryBlockReader::Impl& SharedMemoryBlockReader::Block() const {
    if (!impl_) {
        throw std::runtime_error("Error: Accessed default constructed SharedMemoryBlockReader");
    }
    return *impl_;
}

void SharedMemoryBlockReader::DoLock() {
    Block().LockForRead();
}

bool SharedMemoryBlockReader::DoTryLock() {
    return Block().TryLockForRead();
}

void SharedMemoryBlockReader::DoUnlock() {
    Block().UnlockForRead();
}

const unsigned char* SharedMemoryBlockReader::DoGetData() {
    return Block().GetDataForRead();
}

std::uint64_t SharedMemoryBlockReader::DoSize() {
    return Block().Size();
}

}  // namespace qel
