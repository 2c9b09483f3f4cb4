#pragma once

#include <memory>

#include "QevExport.h"
#include "UniqueFunction.h"

namespace qel {

/// Owner of a file descriptor: closes it at the end of its life.
///
/// Thread use: one thread at a time; `Get` and `IsOpen` may be called by many.
class QEV_EXPORT FileDescriptor {
public:
    /// What closes the descriptor in place of `close`.
    using Closer = std::unique_ptr<UniqueFunction<void(int)>>;

    /// Owns nothing: the descriptor is -1.
    FileDescriptor() noexcept = default;

    /// Takes over `descriptor`, -1 for none.
    /// @param closer  called with the descriptor at the end; empty for `close`
    explicit FileDescriptor(int descriptor, Closer closer = {}) noexcept;

    /// Closes the descriptor if it is open. Never throws: what a closer throws is swallowed.
    ~FileDescriptor();

    /// Leaves `other` without a descriptor.
    FileDescriptor(FileDescriptor&& other) noexcept;
    /// Closes what is held, then takes over; leaves `other` without a descriptor.
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    /// The descriptor, -1 if there is none. It stays owned by this object.
    [[nodiscard]] int Get() const noexcept { return descriptor_; }

    [[nodiscard]] bool IsOpen() const noexcept { return descriptor_ >= 0; }

private:
    void Close() noexcept;

    int descriptor_ = -1;
    Closer closer_;
};

}  // namespace qel
