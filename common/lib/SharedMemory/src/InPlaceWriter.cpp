#include "InPlaceWriter.h"

#include <optional>
#include <stdexcept>
#include <typeinfo>

#include "HeaderCopy.h"
#include "SharedBuffer.h"
#include "SharedPacketBuffer.h"

namespace qel {

class InPlaceWriter::Impl {
public:
    /// @throws std::bad_cast
    explicit Impl(SharedPacketBufferIF& buffer)
        : packets_(dynamic_cast<SharedPacketBuffer&>(buffer)),
          ring_(dynamic_cast<SharedBuffer&>(packets_.Ring())) {}

    ReadResult Reserve(std::uint64_t size) {
        if (held_) {
            return {{}, SMStatusCode::INVALID_PARAMETER};
        }
        const SMStatusCode placed = FindPlace(size);
        if (placed != SMStatusCode::SUCCESS) {
            return {{}, placed};
        }
        const std::uint64_t start = ring_.WriteIndex();
        const std::uint64_t record = kPacketHeaderSize + size;
        const ReadResult view = ring_.ReadData(start, record);
        if (view.status != SMStatusCode::SUCCESS || view.data.size() != record) {
            return {{}, SMStatusCode::INVALID_PARAMETER};  // the index has been forged meanwhile
        }
        // Ahead of the payload, as of every record: who looks on from outside the chain sees by it
        // how far the bytes may change.
        PacketHeader filler;
        filler.ignoreData = true;
        filler.length = size;
        CopyHeader(view.data.data(), reinterpret_cast<const unsigned char*>(&filler));
        held_ = Reservation{start, size};
        return {view.data.subspan(kPacketHeaderSize), SMStatusCode::SUCCESS};
    }

    SMStatusCode Commit(const PacketHeader& header, std::uint64_t length) {
        if (!held_ || length > held_->size) {
            return SMStatusCode::INVALID_PARAMETER;
        }
        const bool isInPlace = ring_.WriteIndex() == held_->start;
        held_.reset();
        if (!isInPlace) {
            return SMStatusCode::INVALID_PARAMETER;
        }
        PacketHeader written = header;
        written.length = length;
        return ring_
            .WriteHeaderSkipPayload({reinterpret_cast<unsigned char*>(&written), kPacketHeaderSize},
                                    length)
            .status;
    }

    void GiveUp() noexcept { held_.reset(); }
    [[nodiscard]] bool HasReservation() const noexcept { return held_.has_value(); }

private:
    struct Reservation {
        std::uint64_t start;  ///< where the header is to stand
        std::uint64_t size;   ///< bytes of payload, at most
    };

    /// Takes the write index to a place where a packet of up to `size` bytes may stand.
    SMStatusCode FindPlace(std::uint64_t size) {
        const std::uint64_t ringSize = ring_.Size();
        if (size > ringSize || ringSize - size < 2 * kPacketHeaderSize) {
            return SMStatusCode::INVALID_PARAMETER;
        }
        if (!HasRoom(size, 1)) {
            return SMStatusCode::NOT_ENOUGH_SPACE;
        }
        const std::uint64_t start = ring_.WriteIndex();
        if (start > ringSize) {
            return SMStatusCode::INVALID_PARAMETER;  // forged
        }
        const std::uint64_t toEnd = ringSize - start;
        if (toEnd >= size + 2 * kPacketHeaderSize) {
            return SMStatusCode::SUCCESS;
        }
        if (!HasRoom(size, 2)) {
            return SMStatusCode::NOT_ENOUGH_SPACE;
        }
        if (const SMStatusCode filled = packets_.FillToEnd(toEnd);
            filled != SMStatusCode::SUCCESS) {
            return filled;
        }
        return HasRoom(size, 1) ? SMStatusCode::SUCCESS : SMStatusCode::NOT_ENOUGH_SPACE;
    }

    /// As an ordinary write has it, for a record of `size` bytes of payload and `count` packets.
    [[nodiscard]] bool HasRoom(std::uint64_t size, std::uint32_t count) const {
        const ReadResult view = ring_.ReadData(0, size);
        const ByteSpan header = ring_.ReadData(0, kPacketHeaderSize).data;
        return ring_.EnoughSpace(false, header, view.data) && ring_.MorePacketsAllowed(count);
    }

    SharedPacketBuffer& packets_;
    SharedBuffer& ring_;
    std::optional<Reservation> held_;
};

InPlaceWriter::InPlaceWriter(SharedPacketBufferIF& buffer) {
    try {
        impl_ = std::make_unique<Impl>(buffer);
    } catch (const std::bad_cast&) {
        throw std::invalid_argument(
            "Exception: only a packet buffer that the library has made can be written in place");
    }
}

InPlaceWriter::~InPlaceWriter() = default;

ReadResult InPlaceWriter::Reserve(std::uint64_t size) {
    return impl_->Reserve(size);
}

SMStatusCode InPlaceWriter::Commit(const PacketHeader& header, std::uint64_t length) {
    return impl_->Commit(header, length);
}

void InPlaceWriter::GiveUp() noexcept {
    impl_->GiveUp();
}

bool InPlaceWriter::HasReservation() const noexcept {
    return impl_->HasReservation();
}

}  // namespace qel
