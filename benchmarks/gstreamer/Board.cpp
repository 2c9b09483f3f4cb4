#include "Board.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>

#include "RingError.h"

namespace qel {

static_assert(sizeof(Board::Content) % alignof(std::int64_t) == 0);

Meeting::Meeting() {
    if (sem_init(&semaphore_, 1, 0) == -1) {
        throw RingError("cannot make a semaphore", errno);
    }
}

Meeting::~Meeting() {
    (void)sem_destroy(&semaphore_);
}

void Meeting::Arrive() noexcept {
    (void)sem_post(&semaphore_);
}

bool Meeting::Await(std::chrono::seconds patience) noexcept {
    timespec until{};
    (void)clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += patience.count();
    int status = 0;
    do {
        status = sem_clockwait(&semaphore_, CLOCK_MONOTONIC, &until);
    } while (status == -1 && errno == EINTR);
    return status == 0;
}

Board::Board(std::size_t latencies) : size_(sizeof(Content) + latencies * sizeof(std::int64_t)) {
    // Present from the start, or the reader would pay for its pages while it is measured.
    void* memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        throw RingError("cannot map " + std::to_string(size_) + " bytes", errno);
    }
    content_ = new (memory) Content;
}

Board::~Board() {
    content_->~Content();
    (void)munmap(content_, size_);
}

std::int64_t* Board::Latencies() noexcept {
    return reinterpret_cast<std::int64_t*>(content_ + 1);
}

}  // namespace qel
