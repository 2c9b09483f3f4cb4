#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "Clocks.h"

namespace qel {

/// A point at which one process waits for another.
class Meeting {
public:
    Meeting();
    ~Meeting();
    Meeting(const Meeting&) = delete;
    Meeting& operator=(const Meeting&) = delete;

    void Arrive() noexcept;

    /// @return false when the other has not arrived in time
    [[nodiscard]] bool Await(std::chrono::seconds patience) noexcept;

private:
    sem_t semaphore_{};
};

/// What each process tells about itself.
struct Figures {
    Stopwatch::Figures measured;  ///< from the first to the last frame that is measured
    Stopwatch::Figures idle;
    std::uint64_t copies;  ///< that the transport's element counted, of all frames
};

/// Memory that writer, reader and their parent share, apart from the transport: where the first two
/// meet, and what they found out.
///
/// Thread use: each process writes its own part; the parent reads when both have ended.
class Board {
public:
    /// @param latencies  how many of them there can be
    explicit Board(std::size_t latencies);
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    struct Content {
        Meeting writerIsThere;
        Meeting readerIsThere;
        Meeting readerHasAll;
        Figures writer{};
        Figures reader{};
        pid_t writerPid = 0;
        std::uint64_t received = 0;  ///< frames that arrived as they were sent
        std::uint64_t wrong = 0;     ///< frames that arrived otherwise, or in another order
        std::uint64_t copied = 0;    ///< frames of the warm-up that lay in memory of the reader
        std::uint64_t seen = 0;      ///< frames of the warm-up that arrived
        std::uint64_t latencyCount = 0;
    };

    [[nodiscard]] Content& Get() noexcept { return *content_; }

    /// ns from the writer's stamp to the reader's handler, by frame.
    [[nodiscard]] std::int64_t* Latencies() noexcept;

private:
    std::size_t size_;
    Content* content_;
};

}  // namespace qel
