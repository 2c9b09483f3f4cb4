#pragma once

#include <sys/types.h>

#include <array>
#include <string>

namespace qel::test {

/// The kernel's settings fs.protected_symlinks, _hardlinks, _fifos and _regular, changed for as
/// long as it lives. They are the whole machine's:
///  - a process of its own puts them back, however this one ends;
///  - whoever else changes them with this class waits.
class KernelProtection {
public:
    struct Settings {
        int symlinks;
        int hardlinks;
        int fifos;
        int regular;
    };

    explicit KernelProtection(const Settings& settings);
    ~KernelProtection();
    KernelProtection(const KernelProtection&) = delete;
    KernelProtection& operator=(const KernelProtection&) = delete;

    /// False if this process may not change them; then they are as they were.
    [[nodiscard]] bool IsInForce() const { return inForce_; }

private:
    static constexpr std::size_t kCount = 4;

    void StartGuardian(const std::array<std::string, kCount>& before);

    int lock_ = -1;
    int alive_ = -1;  ///< closed by whatever ends this process, which the guardian sees
    pid_t guardian_ = -1;
    bool inForce_ = false;
};

}  // namespace qel::test
