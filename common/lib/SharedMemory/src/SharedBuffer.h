#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ControlBlock.h"
#include "SharedBufferIF.h"
#include "SysIF.h"

namespace qel {

/// A mapped data area, and what goes with it for as long as it is mapped.
struct RingArea : ByteSpan {
    /// Of the view of a plain write, which is a gathered one of one part: made once, not each time.
    std::vector<ByteSpan> onePart{ByteSpan()};
    /// Parts of so many bytes and more are copied past the cache.
    std::size_t pastCacheFrom = 0;
};

/// One process's view of a segment at one node.
///
/// Thread rules: constructed, used and destroyed by one thread at a time. What other processes may
/// do meanwhile, and the invariants that hold between operations, stand at ControlBlock.
///
/// Nothing that stands in the segment is trusted: whatever another process wrote there, no
/// operation touches memory outside the data area or divides by zero.
///
/// What every packet goes through is marked `flatten`, so that all it calls is in line: a call
/// stores, and each atomic operation waits for all stores before it.
///
/// Where each group of operations lives: segment lifecycle in SharedBuffer.cpp, counters in
/// SharedBufferAccounting.h, writing in SharedBufferWrite.cpp, reading, release and diagnostics in
/// SharedBufferRead.cpp, what is said of refusals in SharedBufferRefusals.cpp.
class SharedBuffer : public SharedBufferIF {
public:
    /// Opens or creates, sizes and maps the segment, and initialises it if nobody has yet.
    /// @throws std::invalid_argument  for a node index that the control block has no room for
    /// @throws std::runtime_error  when the system refuses a step; its reason has been logged
    SharedBuffer(std::shared_ptr<SysIF> sys, const BufferInfo& info);

    /// Lowers `avail[node]` by `size`, but not below 0.
    /// @param node  0 to 4
    /// @return true if clamped
    bool DecreaseAvailableSize(std::uint64_t size, std::uint8_t node);

    /// Raises `avail[node]` by `size`, but not above the size of the data area.
    /// @param node  0 to 4
    /// @return true if clamped
    bool IncreaseAvailableSize(std::uint64_t size, std::uint8_t node);

    /// True if `header` and `payload` fit, with the reserve that `isCritical` asks for.
    [[nodiscard]] bool EnoughSpace(bool isCritical, const ByteSpan& header,
                                   const ByteSpan& payload) const;

    /// True if the packet limit leaves room for `count` more packets.
    [[nodiscard]] bool MorePacketsAllowed(std::uint32_t count) const;

    /// Counts a packet in: node 0 of a ring with a packet limit.
    void IncrementPackets();

    /// Counts `count` packets out, but not below 0: the sink of a ring with a packet limit.
    /// @return true if clamped
    bool DecrementPackets(std::uint32_t count);

    /// Copies `data` into the data area at `index`, split at the end of the area.
    /// @return the offset just past the copy
    std::uint64_t WriteData(std::uint64_t index, const ByteSpan& data);

    /// Where this node writes next.
    [[nodiscard]] std::uint64_t WriteIndex() const;

    /// Bytes of the data area.
    [[nodiscard]] std::uint64_t Size() const { return ShmSize(); }

    /// Skips `size` bytes that wait for this node.
    /// @return true if clamped
    bool Consume(std::uint64_t size);

private:
    using DataArea = std::unique_ptr<ByteSpan, std::function<void(ByteSpan*)>>;

    using Counter = std::atomic<std::uint64_t>;
    using Indices = std::array<Counter, kMaxNodes>;

    // As errors name them.
    static constexpr const char* kMultiData = "DoWriteHeaderMultiData";
    static constexpr const char* kSkipPayload = "DoWriteHeaderSkipPayload";

    /// The counters that the checks of a write use, loaded once so that a refusal tells the same.
    struct Room {
        std::uint64_t available;
        std::uint32_t maxPackets;
        std::uint32_t numPackets;  ///< looked at only if there is a limit

        [[nodiscard]] bool Holds(std::uint64_t packetLength, std::uint64_t reserve) const {
            return available >= reserve + packetLength;
        }
        [[nodiscard]] bool AllowsPackets(std::uint32_t count) const {
            return maxPackets == 0 || maxPackets >= numPackets + count;
        }
        [[nodiscard]] std::string PacketsText() const;
    };

    /// Room that ordinary writes leave free: five more headers.
    [[nodiscard]] static std::uint64_t Reserve(bool isCritical, std::uint64_t headerLength) {
        return isCritical ? 0 : 5 * headerLength;
    }

    SMStatusCode DoReleaseData(std::uint64_t size, std::uint32_t count) override;
    WriteResult DoWriteHeaderPayload(const ByteSpan& header, const ByteSpan& payload,
                                     bool isCritical) override;
    WriteResult DoWriteHeaderMultiData(const ByteSpan& header, const std::vector<ByteSpan>& data,
                                       std::uint64_t dataSize, bool isCritical) override;
    WriteResult DoWriteHeaderSkipPayload(const ByteSpan& header, std::uint64_t skipSize) override;
    ReadResult DoReadData(std::uint64_t index, std::uint64_t length) override;
    ReadResult DoReadHeader(std::uint64_t length) override;
    PayloadResult DoReadPayload(std::uint64_t length) override;
    void DoPrint(LogLevel level) override;
    Capacity DoGetCurrentCapacity() override;

    int OpenShm();
    void AllocateShm(int fd, std::uint64_t segmentSize);
    void MapShm(int fd, std::uint64_t shmSize, std::uint64_t segmentSize);
    void CloseShm(int fd);
    void InitialiseOnce(std::uint32_t maxFrames);

    [[nodiscard]] Room LoadRoom() const;
    ReadResult LookAtHeader(std::uint64_t length);
    /// True if a record may stand at `start`: it ends at the end of the data area, or leaves room
    /// for one more header behind it.
    [[nodiscard]] bool IsPlace(std::uint64_t start, std::uint64_t headerLength,
                               std::uint64_t packetLength) const;
    /// Moves a written record's bytes from this node to the next.
    SMStatusCode HandOn(std::uint64_t packetLength);
    /// Moves this node's index on by `size` bytes, round the ring.
    void Advance(Indices& indices, std::uint64_t size);

    [[nodiscard]] Counter& Avail(std::uint8_t node) const;
    /// The data area as this class has made it.
    [[nodiscard]] RingArea& Area() const { return static_cast<RingArea&>(*dataArea_); }
    [[nodiscard]] std::uint64_t ShmSize() const { return dataArea_->size(); }
    /// `index` modulo the size of the data area.
    [[nodiscard]] std::uint64_t Wrap(std::uint64_t index) const;
    /// Copies `data` to `to`, whose memory is large enough.
    void Copy(const ByteSpan& data, unsigned char* to) const;

    // What cannot be done as asked: clamps or refuses, and sets the error string.
    [[gnu::cold]] bool ReserveTooMuch(Counter& avail, std::uint64_t available, std::uint64_t size);
    [[gnu::cold]] bool ReleaseTooMuch(Counter& avail, std::uint64_t available, std::uint64_t size);
    [[gnu::cold]] bool ReleaseTooManyPackets(std::uint32_t numPackets, std::uint32_t count);
    [[gnu::cold]] WriteResult RefuseForRoom(std::uint64_t packetLength, std::uint64_t reserve,
                                            const Room& room);
    [[gnu::cold]] WriteResult RefuseFillerForRoom(std::uint64_t packetLength, const Room& room);
    [[gnu::cold]] WriteResult RefusePlace(const char* operation, std::uint64_t start,
                                          std::uint64_t headerLength, std::uint64_t packetLength,
                                          const Room& room);
    [[gnu::cold]] ReadResult RefuseView(std::uint64_t index, std::uint64_t length);
    [[gnu::cold]] PayloadResult RefusePayload(std::uint64_t length, std::uint64_t available);
    /// What a refusal for want of room tells of it.
    [[nodiscard]] [[gnu::cold]] std::string TextOf(Room room) const;
    /// Replaces the error string.
    void SetError(const char* operation, const std::string& text);
    /// Sets the error string unless an earlier fault is kept there.
    void SetFirstError(const char* operation, const std::string& text);

    DataArea dataArea_;
    ControlBlock* control_ = nullptr;
    std::shared_ptr<SysIF> sys_;
    std::uint64_t pendingHeaderLength_ = 0;
    std::uint8_t nodeIdx_;
    bool sink_;
    std::string shmName_;
    std::string errorString_;
};

}  // namespace qel

#include "SharedBufferAccounting.h"
