#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "EventCounts.h"

/// A plain model of the ring: integers and a vector of bytes, one thread, nothing shared, no code
/// in common with the ring. Slow and obvious.
namespace qel::test::reference {

using Bytes = std::vector<unsigned char>;

enum class Status : int {
    Success = 0,
    InvalidParameter = 1,
    NotEnoughSpace = 3,
    DataNotAvailable = 4,
    WillWrap = 5,
};

constexpr unsigned kNodes = 5;
constexpr std::size_t kControlSize = 152;

/// What all nodes share.
struct Segment {
    explicit Segment(std::uint64_t dataSize) : size(dataSize), data(dataSize) {}

    /// What mapping the segment does to it: something the first time, then nothing.
    void Open(std::uint32_t maxFrames);
    /// The control block as bytes in memory.
    [[nodiscard]] std::array<unsigned char, kControlSize> Image() const;

    std::uint64_t size;
    std::array<std::uint64_t, kNodes> avail{};
    std::array<std::uint64_t, kNodes> wIdx{};
    std::array<std::uint64_t, kNodes> rIdx{};
    std::uint32_t numPackets = 0;
    bool initialised = false;
    std::uint32_t maxPackets = 0;
    std::uint64_t halfSize = 0;
    std::uint64_t quarterSize = 0;
    Bytes data;
};

struct Written {
    std::uint64_t index;
    Status status;
};

/// A view: which bytes of the data area it shows.
struct Seen {
    std::uint64_t offset;
    std::uint64_t length;
    Status status;
};

struct SeenPayload {
    Seen view;
    std::uint64_t index;
};

/// One node's ring object.
class Node {
public:
    Node(Segment& segment, EventCounts& events, std::string name, unsigned index, bool sink,
         std::uint32_t maxFrames);

    Written WriteHeaderPayload(const Bytes& header, const Bytes& payload, bool critical);
    Written WriteHeaderMultiData(const Bytes& header, const std::vector<Bytes>& spans,
                                 std::uint64_t dataSize, bool critical);
    Written WriteHeaderSkipPayload(const Bytes& header, std::uint64_t skipSize);
    Seen ReadData(std::uint64_t index, std::uint64_t length);
    Seen ReadHeader(std::uint64_t length);
    SeenPayload ReadPayload(std::uint64_t length);
    Status ReleaseData(std::uint64_t size, std::uint32_t count);
    /// The text of a dump, which clears the error.
    std::string Print();

    [[nodiscard]] std::uint64_t Pending() const { return pending_; }

private:
    [[nodiscard]] bool CountIsAtLimit() const;
    bool RefusedForWrap(const std::string& operation, std::uint64_t headerLength,
                        std::uint64_t packetLength, Written& refusal);
    std::uint64_t Copy(std::uint64_t position, const Bytes& bytes);
    [[nodiscard]] std::uint64_t Modulo(std::uint64_t position) const;
    void CountIn();
    bool TakeAvailable(std::uint64_t size);
    bool GiveAvailable(std::uint64_t size, unsigned node);
    bool CountOut(std::uint32_t count);
    [[nodiscard]] Status WriteStatus(bool clamped, Status released) const;
    void KeepFirst(const std::string& text);

    Segment& segment_;
    EventCounts& events_;
    std::string name_;
    unsigned index_;
    bool sink_;
    std::uint64_t pending_ = 0;
    std::string error_;
};

}  // namespace qel::test::reference
