#include "Examination.h"

#include <gsl/util>

#include "PacketHeader.h"

namespace qel::test {
namespace {

using Found = EndOfRecords::Found;

/// Looks at one place after the other, and adds up the bytes that it can tell the fate of.
class Look {
public:
    Look(const RingSight& ring, std::uint8_t dead, const HeldBytes& held)
        : ring_(ring), dead_(dead), held_(held) {}

    [[nodiscard]] std::optional<Findings> Find(std::uint32_t limit) {
        const RingFields& control = ring_.fields;
        if (control.maxPackets != limit) {
            findings_.insert(Finding::LimitMissing);
        }
        if (IsUntouched() && control.avail[0] == 0) {
            findings_ = {Finding::NeverInitialised};
            return findings_;
        }
        const auto end = FindEndKnowingTheDead();
        if (!end || !LookAtWriter(*end) || !LookAtReaders(end->offset) || !LookAtCount(*end)) {
            return std::nullopt;
        }
        std::uint64_t sum = known_;
        for (gsl::index node = 0; node <= static_cast<gsl::index>(ring_.sink); ++node) {
            sum += gsl::at(control.avail, node) + gsl::at(held_, node);
        }
        return sum == ring_.Size() ? std::optional(findings_) : std::nullopt;
    }

private:
    [[nodiscard]] bool IsUntouched() const {
        std::uint64_t sum = ring_.fields.wIdx[0];
        for (gsl::index node = 1; node <= static_cast<gsl::index>(ring_.sink); ++node) {
            sum += gsl::at(ring_.fields.avail, node);
            sum += gsl::at(ring_.fields.rIdx, node);
        }
        return sum == 0;
    }

    /// A filler that is a mere header looks the same whether the writer is about to hand it on or
    /// the first reader about to take it.
    [[nodiscard]] std::optional<EndOfRecords> FindEndKnowingTheDead() const {
        auto end = FindEnd(ring_);
        if (end && end->found == Found::ReaderTaking && dead_ == 0) {
            end = {end->offset + ring_.Size() - kPacketHeaderSize, Found::FillerBegun};
            end->offset %= ring_.Size();
        }
        return end;
    }

    bool Lost(Finding finding, std::uint64_t bytes) {
        findings_.insert(finding);
        known_ += bytes;
        return true;
    }

    bool LookAtWriter(const EndOfRecords& end) {
        switch (end.found) {
            case Found::AtBoth:
                return true;
            case Found::ReaderTaking:
                return dead_ == 1 && Lost(Finding::TakingBytesLost,
                                          RecordAt(ring_.records, ring_.fields.rIdx[1])->length);
            case Found::RecordHandedOn:
                return dead_ == 0 && Lost(Finding::RecordHandedOn, 0);
            case Found::FillerBegun:
                return dead_ == 0 && Lost(Finding::FillerBegun, 0);
            case Found::FillerHandedOn:
                return dead_ == 0 && Lost(Finding::FillerHandedOn, 0);
        }
        return false;
    }

    /// A gap is what lies between where a node reads next and what the node behind it has been
    /// given, less what the node is known to hold.
    bool LookAtReaders(std::uint64_t end) {
        for (std::uint8_t node = 1; node <= ring_.sink; ++node) {
            const bool last = node == ring_.sink;
            const std::uint64_t next =
                last ? end + ring_.fields.avail[0]
                     : gsl::at(ring_.fields.rIdx, node + 1) + gsl::at(ring_.fields.avail, node + 1);
            const std::uint64_t gap =
                ring_.Distance(next + gsl::at(held_, node), gsl::at(ring_.fields.rIdx, node));
            if (gap != 0 && !Explain(node, last, end, gap)) {
                return false;
            }
        }
        return true;
    }

    bool Explain(std::uint8_t node, bool last, std::uint64_t end, std::uint64_t gap) {
        if (dead_ == node) {
            return Lost(Finding::HeldBytesLost, gap);
        }
        if (!last && dead_ == node + 1) {
            const auto record = RecordAt(ring_.records, gsl::at(ring_.fields.rIdx, dead_));
            return record && record->length == gap && Lost(Finding::TakingBytesLost, gap);
        }
        const auto record = RecordAt(ring_.records, end);
        if (!last || dead_ != 0 || !record || record->length != gap) {
            return false;
        }
        if (findings_.erase(Finding::FillerBegun) != 0) {
            return Lost(Finding::FillerBytesLost, gap);
        }
        return Lost(Finding::RecordBytesLost, gap);
    }

    bool LookAtCount(const EndOfRecords& end) {
        const RingFields& control = ring_.fields;
        if (control.maxPackets == 0) {
            return control.numPackets == 0;
        }
        const std::uint64_t readIndex = gsl::at(control.rIdx, ring_.sink);
        const std::uint64_t oldest = dead_ == ring_.sink
                                         ? end.offset + control.avail[0]
                                         : readIndex + ring_.Size() - gsl::at(held_, ring_.sink);
        const std::uint64_t start = oldest % ring_.Size();
        const auto records = CountRecords(ring_.records, start, ring_.Distance(start, end.offset));
        if (records && control.numPackets == *records + 1) {
            findings_.insert(Finding::CountHigh);
            return true;
        }
        return records && control.numPackets == *records;
    }

    const RingSight& ring_;
    std::uint8_t dead_;
    const HeldBytes& held_;
    Findings findings_;
    std::uint64_t known_ = 0;
};

}  // namespace

std::optional<Findings> Examine(const RingSight& ring, std::uint8_t dead, const HeldBytes& held,
                                std::uint32_t limit) {
    return Look(ring, dead, held).Find(limit);
}

std::string LeftText(Finding finding) {
    switch (finding) {
        case Finding::NeverInitialised:
            return "a segment that is never initialised";
        case Finding::LimitMissing:
            return "a ring without its packet limit";
        case Finding::CountHigh:
            return "`numPackets` one too high";
        case Finding::RecordBytesLost:
        case Finding::TakingBytesLost:
            return "L bytes in no counter";
        case Finding::RecordHandedOn:
            return "`wIdx[0]` stale: L too low";
        case Finding::FillerBegun:
            return "`wIdx[0]` 26 too high";
        case Finding::FillerBytesLost:
            return "F bytes in no counter and `wIdx[0]` 26 too high";
        case Finding::FillerHandedOn:
            return "`wIdx[0]` stale: F − 26 too low";
        case Finding::HeldBytesLost:
            return "H bytes in no counter";
    }
    return {};
}

std::string SeeText(Finding finding, bool isSink) {
    switch (finding) {
        case Finding::NeverInitialised:
            return "`initialised` = 1 and all counters and indices 0";
        case Finding::LimitMissing:
            return "`maxPackets` = 0";
        case Finding::CountHigh:
            return "`numPackets` = records in the ring + 1";
        case Finding::RecordBytesLost:
            return "sink's gap L too high";
        case Finding::RecordHandedOn:
            return "writer's gap = −L, and a record of length L at `wIdx[0]`";
        case Finding::FillerBegun:
            return "writer's gap = 26, and a filler to the end at `wIdx[0]` − 26";
        case Finding::FillerBytesLost:
            return "writer's gap = 26, sink's gap F − 26 too high, and a filler to the end at "
                   "`wIdx[0]` − 26";
        case Finding::FillerHandedOn:
            return "writer's gap = 26 − F, and a filler to the end at `wIdx[0]` − 26";
        case Finding::TakingBytesLost:
            return "gap of node n − 1 L too high, and a record of length L at `rIdx[n]`";
        case Finding::HeldBytesLost:
            return isSink ? "sink's gap H, and no sink is there"
                          : "gap of node n = H, and no node n is there";
    }
    return {};
}

}  // namespace qel::test
