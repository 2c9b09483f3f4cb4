#include "RawWriter.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <stdexcept>

#include "FileDescriptor.h"

namespace qel::fuzz {

RawWriter::RawWriter(const std::string& ring, std::uint64_t size) : size_(size) {
    const FileDescriptor object(::shm_open(("/" + ring + ".shm").c_str(), O_RDWR, 0));
    void* const start = ::mmap(nullptr, size_ + sizeof(ControlBlock), PROT_READ | PROT_WRITE,
                               MAP_SHARED, object.Get(), 0);
    if (start == MAP_FAILED) {
        throw std::runtime_error("no ring " + ring);
    }
    control_ = static_cast<ControlBlock*>(start);
}

RawWriter::~RawWriter() {
    ::munmap(control_, size_ + sizeof(ControlBlock));
}

void RawWriter::Put(const Bytes& bytes) {
    const std::uint64_t start = control_->wIdx[0];
    if (control_->avail[0] < bytes.size() || start >= size_) {
        return;
    }
    auto* const area = reinterpret_cast<unsigned char*>(control_ + 1);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        area[(start + i) % size_] = bytes[i];
    }
    control_->avail[0].fetch_sub(bytes.size());
    control_->wIdx[0].store((start + bytes.size()) % size_);
    control_->avail[1].fetch_add(bytes.size());
}

void RawWriter::Forge(std::size_t field, std::uint64_t value) {
    auto* const fields = reinterpret_cast<std::atomic<std::uint64_t>*>(control_);
    fields[field].store(value);
}

}  // namespace qel::fuzz
