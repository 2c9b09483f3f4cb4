#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qel::bench {

/// What one process found out.
struct Report {
    std::uint64_t messages = 0;  ///< measured
    std::uint64_t received = 0;  ///< all that arrived as they were sent
    std::uint64_t lost = 0;
    std::uint64_t wrong = 0;
    std::int64_t time = 0;              ///< ns
    std::int64_t cpu = 0;               ///< ns
    std::uint64_t allocations = 0;      ///< while it was measured, see CountAllocations.cpp
    std::uint64_t resident = 0;         ///< bytes beside the rings
    std::array<double, 4> quantiles{};  ///< ns: p50, p99, p99.9, mean
    std::size_t marks = 0;
    std::array<std::int64_t, 64> marked{};  ///< ns from the start
};

/// Memory that all processes of a measurement share apart from the transport: where they meet, and
/// what they report.
class Board {
public:
    static constexpr std::size_t kProcesses = 5;

    explicit Board(std::size_t processes);
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    /// Returns when all processes have come. Can be used any number of times.
    void Meet() noexcept;

    [[nodiscard]] Report& Of(std::size_t process) noexcept { return content_->reports[process]; }

private:
    struct Content {
        std::atomic<std::uint64_t> arrived{0};
        std::array<Report, kProcesses> reports{};
    };

    std::size_t processes_;
    Content* content_;
};

}  // namespace qel::bench
