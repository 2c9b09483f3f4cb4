#pragma once

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <stdexcept>

#include "Resources.h"

namespace qel::test {

inline constexpr unsigned kSoakNodes = 5;
/// Units of the soak's semaphore: one that each process may keep while it does something else, and
/// three for those who wait. Nobody can keep a waiting process from its units for ever.
inline constexpr int kSoakUnits = kSoakNodes + 3;

/// What one process tells of itself.
struct SoakFigures {
    std::atomic<std::uint64_t> packets{0};
    std::atomic<std::uint64_t> bytes{0};     ///< of payload
    std::atomic<std::uint64_t> fillers{0};   ///< one a lap
    std::atomic<std::uint64_t> locks{0};     ///< of the block
    std::atomic<std::uint64_t> units{0};     ///< of the semaphore, taken and given back
    std::atomic<std::uint64_t> openings{0};  ///< of ring, block and semaphores, together
    std::atomic<std::uint64_t> refusals{0};  ///< of a block whose creator had just closed it
    std::atomic<std::uint64_t> resident{0};  ///< bytes
    Resources atQuarter;  ///< complete when the process has ended, as are the next
    Resources last;
    bool judged = false;
};

/// What the processes of a soak share beside what they test.
struct SoakBoard {
    std::array<SoakFigures, kSoakNodes> nodes;
    std::atomic<bool> failed{false};     ///< nobody needs to go on
    std::atomic<bool> blockMade{false};  ///< there is a record in the block's lock file
    std::atomic<unsigned> finished{0};   ///< processes that have seen the last packet
    std::atomic<int> taken{0};           ///< units that are taken at least
    std::atomic<int> units{kSoakUnits};  ///< units that there are at most
};

/// The board in memory that forked processes share with this one.
class SharedBoard {
public:
    SharedBoard()
        : memory_(::mmap(nullptr, sizeof(SoakBoard), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (memory_ == MAP_FAILED) {
            throw std::runtime_error("no memory for the board");
        }
        board_ = new (memory_) SoakBoard;
    }
    ~SharedBoard() { ::munmap(memory_, sizeof(SoakBoard)); }
    SharedBoard(const SharedBoard&) = delete;
    SharedBoard& operator=(const SharedBoard&) = delete;

    [[nodiscard]] SoakBoard& operator*() const { return *board_; }
    [[nodiscard]] SoakBoard* operator->() const { return board_; }

private:
    void* memory_;
    SoakBoard* board_ = nullptr;
};

}  // namespace qel::test
