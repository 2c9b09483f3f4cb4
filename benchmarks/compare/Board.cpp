#include "Board.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>

#include "Clock.h"
#include "RingError.h"

namespace qel::bench {
namespace {

constexpr unsigned kTurns = 20000;  // that poll; then, more processes than cores are assumed
constexpr timespec kPause{0, 50'000};

}  // namespace

Board::Board(std::size_t processes) : processes_(processes) {
    void* memory = mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        throw RingError("cannot map the board", errno);
    }
    content_ = new (memory) Content;
}

Board::~Board() {
    content_->~Content();
    (void)munmap(content_, sizeof(Content));
}

void Board::Meet() noexcept {
    const std::uint64_t ticket = content_->arrived.fetch_add(1);
    const std::uint64_t all = (ticket / processes_ + 1) * processes_;
    for (unsigned turn = 0; content_->arrived.load() < all; ++turn) {
        if (turn < kTurns) {
            Relax();
        } else {
            (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &kPause, nullptr);
        }
    }
}

}  // namespace qel::bench
