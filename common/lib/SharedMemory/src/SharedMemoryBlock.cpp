#include "SharedMemoryBlock.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace qel {

static_assert(PROT_READ == 1 && PROT_WRITE == 2, "accessFlags holds mprotect's bits");

void SharedMemoryBlock::LockForRead() {
    RequireUsable();
    lockFile_->LockShared();
    EnterReader();
}

bool SharedMemoryBlock::TryLockForRead() {
    RequireUsable();
    if (!lockFile_->TryLockShared()) {
        return false;
    }
    EnterReader();
    return true;
}

void SharedMemoryBlock::UnlockForRead() {
    RequireUsable();
    {
        const std::lock_guard<std::mutex> lock(readerMutex_);
        if (readerThreads_.erase(std::this_thread::get_id()) == 0) {
            throw std::runtime_error(
                "Exception: UnlockForRead called from a different thread than the thread that "
                "locked it");
        }
        if (readerThreads_.empty()) {
            SetReadAllowed(false);
        }
    }
    lockFile_->UnlockShared();
}

void SharedMemoryBlock::LockForWrite() {
    RequireUsable();
    lockFile_->LockExclusive();
    EnterWriter();
}

bool SharedMemoryBlock::TryLockForWrite() {
    RequireUsable();
    if (!lockFile_->TryLockExclusive()) {
        return false;
    }
    EnterWriter();
    return true;
}

void SharedMemoryBlock::UnlockForWrite() {
    RequireUsable();
    if (writerThread_.load() != std::this_thread::get_id()) {
        throw std::runtime_error(
            "Exception: UnlockForWrite called from a different thread than the thread that locked "
            "it");
    }
    SetWriteAllowed(false);
    SetReadAllowed(false);
    lockFile_->UnlockExclusive();
}

const unsigned char* SharedMemoryBlock::GetDataForRead() {
    const std::lock_guard<std::mutex> lock(readerMutex_);
    if (readerThreads_.count(std::this_thread::get_id()) == 0) {
        throw std::runtime_error("GetDataForRead called without proper locking");
    }
    return data_;
}

unsigned char* SharedMemoryBlock::GetDataForWrite() {
    // Pairs with the store of EnterWriter: only the thread that stored its own id finds it.
    if (writerThread_.load() != std::this_thread::get_id()) {
        throw std::runtime_error("GetDataForWrite called without proper locking");
    }
    return data_;
}

void SharedMemoryBlock::SetReadAllowed(bool allowed) {
    allowed ? accessFlags_.fetch_or(kRead) : accessFlags_.fetch_and(~kRead);
    SetAccessPerms();
}

void SharedMemoryBlock::SetWriteAllowed(bool allowed) {
    allowed ? accessFlags_.fetch_or(kWrite) : accessFlags_.fetch_and(~kWrite);
    SetAccessPerms();
}

void SharedMemoryBlock::SetAccessPerms() const {
    if (!mapping_) {
        throw std::runtime_error("SetWriteAllowed called when data ptr is nullptr");
    }
    if (::mprotect(mapping_.get(), size_, accessFlags_.load()) == -1) {
        const int error = errno;
        throw std::runtime_error("Unable to mprotect shared memory - " + std::to_string(error) +
                                 "(" + std::strerror(error) + ")");
    }
}

void SharedMemoryBlock::RequireUsable() const {
    if (!sys_) {
        throw std::runtime_error(
            "Exception: Access to uninitilized or default constructed SharedMemoryBlock");
    }
}

void SharedMemoryBlock::EnterReader() {
    const std::lock_guard<std::mutex> lock(readerMutex_);
    readerThreads_.insert(std::this_thread::get_id());
    SetReadAllowed(true);
}

void SharedMemoryBlock::EnterWriter() {
    SetWriteAllowed(true);  // on its own for a moment: the two steps are undone in reverse
    SetReadAllowed(true);
    writerThread_.store(std::this_thread::get_id());
}

}  // namespace qel
