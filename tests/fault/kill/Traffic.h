#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ControlBlock.h"
#include "RepairRule.h"
#include "RingFile.h"
#include "SharedPacketBufferIF.h"
#include "SysIF.h"
#include "UniqueRingName.h"

namespace qel::test {

/// A ring and the chain on it.
struct Shape {
    std::uint64_t size;
    std::uint8_t sink;
    std::uint32_t maxFrames;

    [[nodiscard]] std::uint32_t Limit() const { return maxFrames == 0 ? 0 : maxFrames + 1; }
};

enum class WriteKind { Plain, Critical, Gathered };

/// Writes a packet that tells its number and length in every byte.
SMStatusCode WriteNumbered(SharedPacketBufferIF& ring, std::int64_t number, std::size_t size,
                           WriteKind kind = WriteKind::Plain);
/// True for a filler, and for a packet all bytes of which are as they were written.
bool IsIntact(const Packet& packet);

/// A ring's memory.
struct RingView {
    ControlBlock& control;
};

/// The object of a ring that no other test uses, mapped for looking at, saving and restoring.
class RingImage {
public:
    explicit RingImage(const Shape& shape);
    ~RingImage();
    RingImage(const RingImage&) = delete;
    RingImage& operator=(const RingImage&) = delete;

    [[nodiscard]] const Shape& Form() const { return shape_; }
    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node) const;
    /// A buffer of its own, as another process that is this node has.
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(
        std::uint8_t node, std::shared_ptr<SysIF> sys = nullptr) const;
    [[nodiscard]] RingView View() const;
    /// As others see it from outside.
    [[nodiscard]] const RingFile& File() const { return *file_; }
    [[nodiscard]] RingSight Sight(const RecordSource& records) const {
        return {file_->Fields(), records, shape_.sink};
    }
    [[nodiscard]] const UniqueRingName& Name() const { return name_; }

    using Bytes = std::vector<unsigned char>;
    [[nodiscard]] Bytes Save() const;
    void Restore(const Bytes& bytes) const;
    /// As the system makes a new object.
    void Clear() const;

private:
    UniqueRingName name_;
    Shape shape_;
    std::uint64_t length_;
    void* start_;
    std::optional<RingFile> file_;
};

/// Puts the ring right, as the command does it. False if that cannot be done.
bool PutRight(const RingImage& ring);

/// A node as it was when somebody died: what it holds and where it was.
struct NodeState {
    std::vector<Packet> held;
    std::int64_t lastRead = -1;  ///< number of the packet that it read last
};
using NodeStates = std::vector<NodeState>;

/// What those who go on without knowing of a death have seen.
struct Sights {
    bool lost = false;            ///< a packet that others after it have overtaken
    bool again = false;           ///< a packet that was delivered before
    bool torn = false;            ///< bytes that nobody has written as one packet
    bool late = false;            ///< packets that never come for lack of later ones
    bool readRefused = false;     ///< INVALID_PARAMETER
    bool releaseRefused = false;  ///< INVALID_PARAMETER
    bool writeNoSpace = false;    ///< NOT_ENOUGH_SPACE for ever
    bool writeInvalid = false;    ///< INVALID_PARAMETER for ever
    bool undefined = false;       ///< any other status
    bool outside = false;         ///< a packet that is not all in the data area
    bool smaller = false;         ///< at rest not all bytes are free
    bool countHigh = false;       ///< at rest there are still packets counted

    void operator|=(const Sights& other);
    /// As the table says it.
    [[nodiscard]] std::vector<std::string> Words() const;
};

struct Traffic {
    bool mixedSizes;
    bool readersFirst;
    std::int64_t first;      ///< number of the next packet to be written
    std::int64_t uncertain;  ///< number of a packet that may come or not, -1 for none
    std::uint8_t taking;     ///< a node that may read its last packet again, 0 for none
};

/// All nodes go on, with the packets that they hold, over more than two laps of the ring.
Sights GoOn(const RingImage& ring, NodeStates states, const Traffic& traffic);

}  // namespace qel::test
