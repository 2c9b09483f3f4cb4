#pragma once

#include <sys/stat.h>

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "RingMeter.h"

namespace qel {

/// What was measured of a ring since the measuring began.
struct RingTotal {
    dev_t device = 0;  ///< of the ring's object, which may be made anew under its name
    ino_t inode = 0;
    RingFigures figures;
    double fullSeconds = 0;  ///< in which the writer had no room for the largest packet
    /// Seconds that bytes were with a node, lately; nothing of nodes that have not read any.
    std::array<std::optional<double>, kMaxNodes> latency{};
};

/// The rings' totals as they were measured last.
///
/// Thread use: any thread.
class RingTotals {
public:
    using ByName = std::map<std::string, RingTotal>;

    /// What they were measured for: what was counted in a moment is no total.
    enum class Use { Totals, States };

    explicit RingTotals(Use use) : use_(use) {}

    [[nodiscard]] Use For() const noexcept { return use_; }

    void Set(ByName totals) {
        const std::lock_guard lock(mutex_);
        totals_ = std::move(totals);
    }

    /// Nothing if the ring `name` whose object has this status was not measured.
    [[nodiscard]] std::optional<RingTotal> Of(const std::string& name,
                                              const struct stat& status) const {
        const std::lock_guard lock(mutex_);
        const auto found = totals_.find(name);
        const bool isSame = found != totals_.end() && found->second.device == status.st_dev &&
                            found->second.inode == status.st_ino;
        return isSame ? std::optional(found->second) : std::nullopt;
    }

private:
    const Use use_;
    mutable std::mutex mutex_;
    ByName totals_;
};

}  // namespace qel
