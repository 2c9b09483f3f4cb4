#include "SharedMemoryBlockWriter.h"

#include <stdexcept>
#include <utility>

#include "SharedMemoryBlock.h"
#include "Sys.h"

namespace qel {

class SharedMemoryBlockWriter::Impl : public SharedMemoryBlock {
public:
    Impl(std::shared_ptr<SysIF> sys, std::string_view name, std::uint64_t size)
        : SharedMemoryBlock(std::move(sys), name, true, size) {}
};

SharedMemoryBlockWriter::SharedMemoryBlockWriter() = default;

SharedMemoryBlockWriter::SharedMemoryBlockWriter(std::string_view name)
    : SharedMemoryBlockWriter(name, 0) {}

SharedMemoryBlockWriter::SharedMemoryBlockWriter(std::string_view name, unsigned long size)
    : SharedMemoryBlockWriter(std::make_shared<Sys>(), name, size) {}

SharedMemoryBlockWriter::SharedMemoryBlockWriter(std::shared_ptr<SysIF> sys, std::string_view name)
    : SharedMemoryBlockWriter(std::move(sys), name, 0) {}

SharedMemoryBlockWriter::SharedMemoryBlockWriter(std::shared_ptr<SysIF> sys, std::string_view name,
                                                 unsigned long size)
    : impl_(std::make_unique<Impl>(std::move(sys), name, size)) {}

SharedMemoryBlockWriter::~SharedMemoryBlockWriter() = default;

SharedMemoryBlockWriter::Impl& SharedMemoryBlockWriter::Block() const {
    if (!impl_) {
        throw std::runtime_error("Error: Accessed default constructed SharedMemoryBlockWriter");
    }
    return *impl_;
}

void SharedMemoryBlockWriter::DoLockForWrite() {
    Block().LockForWrite();
}

bool SharedMemoryBlockWriter::DoTryLockForWrite() {
    return Block().TryLockForWrite();
}

void SharedMemoryBlockWriter::DoUnlockForWrite() {
    Block().UnlockForWrite();
}

void SharedMemoryBlockWriter::DoLockForRead() {
    Block().LockForRead();
}

bool SharedMemoryBlockWriter::DoTryLockForRead() {
    return Block().TryLockForRead();
}

void SharedMemoryBlockWriter::DoUnlockForRead() {
    Block().UnlockForRead();
}

const unsigned char* SharedMemoryBlockWriter::DoGetDataForRead() {
    return Block().GetDataForRead();
}

unsigned char* SharedMemoryBlockWriter::DoGetDataForWrite() {
    return Block().GetDataForWrite();
}

std::uint64_t SharedMemoryBlockWriter::DoSize() {
    return Block().Size();
}

}  // namespace qel
