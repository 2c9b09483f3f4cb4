#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ControlBlock.h"
#include "HandOnLeftovers.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "Thrown.h"
#include "UniqueRingName.h"

namespace qel::test {

inline constexpr std::int64_t kFiller = -1;

/// A ring with a chain on it, all counters of which can be seen and forged.
class LeftRing {
public:
    /// @param sink  the last node of the chain
    LeftRing(std::uint64_t size, std::uint8_t sink, std::uint32_t maxFrames = 0)
        : size_(size), sink_(sink), maxFrames_(maxFrames), writer_(Open(0)) {
        const int fd = ::open(name_.Path().c_str(), O_RDWR | O_CLOEXEC);
        segment_ = ::mmap(nullptr, size_ + sizeof(ControlBlock), PROT_READ | PROT_WRITE, MAP_SHARED,
                          fd, 0);
        ::close(fd);
        if (segment_ == MAP_FAILED) {
            throw std::runtime_error("the ring cannot be mapped");
        }
    }
    ~LeftRing() { ::munmap(segment_, size_ + sizeof(ControlBlock)); }
    LeftRing(const LeftRing&) = delete;
    LeftRing& operator=(const LeftRing&) = delete;

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] const UniqueRingName& Object() const { return name_; }
    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node) const {
        return {name_.Name(), size_, node, node == sink_, maxFrames_};
    }
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node) const {
        return OpenRing(Info(node));
    }
    [[nodiscard]] ControlBlock& Control() const { return *static_cast<ControlBlock*>(segment_); }
    [[nodiscard]] unsigned char* Data() const {
        return static_cast<unsigned char*>(segment_) + sizeof(ControlBlock);
    }
    [[nodiscard]] std::vector<std::uint64_t> Avail() const {
        return {Control().avail.begin(), Control().avail.end()};
    }

    /// Writes packets of these sizes, numbered on from the last one.
    void Write(const std::vector<std::size_t>& sizes) {
        for (const std::size_t size : sizes) {
            const OwnedPacket packet(size, written_, FillOf(written_));
            ASSERT_EQ(writer_->WritePacket(packet.Get()), SMStatusCode::SUCCESS);
            ++written_;
        }
    }

    /// A process that is `node` reads so many packets, releases some of them and is killed.
    void LeaveBehind(std::uint8_t node, int read, int released) const {
        ChildProcess child([&](const Conversation& parent) {
            const auto ring = Open(node);
            std::vector<Packet> packets;
            for (int count = 0; count < read; ++count) {
                const auto next = ring->ReadNextPacket();
                if (next.status != SMStatusCode::SUCCESS) {
                    return 1;
                }
                packets.push_back(next.packet);
            }
            for (int count = 0; count < released; ++count) {
                (void)ring->ReleasePacket(packets[static_cast<std::size_t>(count)]);
            }
            parent.Say("done");
            (void)parent.Hear();
            return 0;
        });
        ASSERT_EQ(child.Hear(), "done");
        child.Kill();
    }

    /// What a successor at `node` hands on.
    [[nodiscard]] std::uint64_t HandOn(std::uint8_t node) const {
        return HandOnLeftovers(*Open(node), Info(node));
    }
    [[nodiscard]] std::string HandOnText(std::uint8_t node) const {
        return Thrown([&] { (void)HandOn(node); });
    }

    /// Numbers of the packets that `node` can read, which are released; fillers are -1, and a
    /// packet that has not come whole is -2.
    [[nodiscard]] std::vector<std::int64_t> Drain(std::uint8_t node) const {
        const auto ring = Open(node);
        std::vector<std::int64_t> numbers;
        for (auto next = ring->ReadNextPacket(); next.status != SMStatusCode::DATA_NOT_AVAILABLE;
             next = ring->ReadNextPacket()) {
            if (next.status != SMStatusCode::SUCCESS) {
                numbers.push_back(-3);
                break;
            }
            numbers.push_back(NumberOf(next.packet));
            EXPECT_EQ(ring->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
        return numbers;
    }

    static unsigned char FillOf(std::int64_t number) {
        return static_cast<unsigned char>('a' + number % 26);
    }
    static std::int64_t NumberOf(const Packet& packet) {
        const std::int64_t number = packet.header.pts;
        if (packet.header.ignoreData) {
            return kFiller;
        }
        for (const unsigned char byte : packet.data) {
            if (byte != FillOf(number)) {
                return -2;
            }
        }
        return number;
    }

private:
    UniqueRingName name_;
    std::uint64_t size_;
    std::uint8_t sink_;
    std::uint32_t maxFrames_;
    std::unique_ptr<SharedPacketBufferIF> writer_;
    void* segment_ = nullptr;
    std::int64_t written_ = 0;
};

}  // namespace qel::test
