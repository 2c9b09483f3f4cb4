#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "ControlBlock.h"
#include "RingTap.h"
#include "RingUnderTest.h"

namespace qel::test {

/// The ring as a tap takes it.
inline RingFile FileOf(const RingUnderTest& ring) {
    auto file = RingFile::Open(ring.Name());
    if (!file) {
        throw std::runtime_error("no ring");
    }
    return std::move(*file);
}

/// The ring's control block, to be forged.
class Forgery {
public:
    explicit Forgery(const RingUnderTest& ring) : Forgery(ring.Path()) {}
    explicit Forgery(const std::string& path) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        place_ = mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        EXPECT_NE(place_, MAP_FAILED);
        EXPECT_EQ(close(fd), 0);
    }
    ~Forgery() { (void)munmap(place_, kLength); }
    Forgery(const Forgery&) = delete;
    Forgery& operator=(const Forgery&) = delete;

    ControlBlock* operator->() const { return static_cast<ControlBlock*>(place_); }
    [[nodiscard]] unsigned char* Data() const {
        return static_cast<unsigned char*>(place_) + sizeof(ControlBlock);
    }

private:
    static constexpr std::size_t kLength = sizeof(ControlBlock) + RingUnderTest::kSize;
    void* place_;
};

/// What comes next, as one letter each: a packet's number, "|" an overrun; up to `most`.
inline std::string Story(RingTap& tap, int most = 1000) {
    std::string story;
    for (int step = 0; step < most; ++step) {
        const TapResult result = tap.TryNext();
        if (result.outcome == TapOutcome::Nothing) {
            break;
        }
        story += result.outcome == TapOutcome::Overrun
                     ? "|"
                     : std::to_string(static_cast<std::int64_t>(result.header.pts)) + " ";
    }
    return story;
}

/// A ring, and what a tap beside it delivers.
class RingTapTest : public testing::Test {
protected:
    void Drain() const {
        while (true) {
            const auto next = ring_.Node(1).ReadNextPacket();
            if (next.status != SMStatusCode::SUCCESS) {
                break;
            }
            EXPECT_EQ(ring_.Node(1).ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
    }

    RingUnderTest ring_;
};

}  // namespace qel::test
