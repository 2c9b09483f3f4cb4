#pragma once

#include <cstddef>

namespace qel {

/// The first page of a file, mapped. Where the file is cut while it is mapped, the page reads as
/// zeros from then on, where another mapping would end the process with SIGBUS; what is stored into
/// it then goes nowhere.
///
/// Thread use: any thread; `Read` of the page is up to its user. The handler for SIGBUS is set at
/// the first use, and lets every SIGBUS that no such page explains end the process as before.
class GuardedPage {
public:
    /// Maps nothing.
    GuardedPage() = default;
    enum class Access { Read, Write };
    /// @param fd  open for that; not needed any more afterwards
    explicit GuardedPage(int fd, Access access = Access::Read) noexcept;
    ~GuardedPage();
    GuardedPage(GuardedPage&& other) noexcept;
    GuardedPage& operator=(GuardedPage&& other) noexcept;
    GuardedPage(const GuardedPage&) = delete;
    GuardedPage& operator=(const GuardedPage&) = delete;

    /// Null if it could not be mapped.
    [[nodiscard]] const void* Data() const noexcept { return data_; }
    /// The same, of a page that may be written to; null of another.
    [[nodiscard]] void* DataToWrite() const noexcept { return writes_ ? data_ : nullptr; }

private:
    void* data_ = nullptr;
    bool writes_ = false;
};

}  // namespace qel
