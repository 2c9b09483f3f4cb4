#include "RingText.h"

#include <fmt/format.h>

#include <gsl/util>

#include "Text.h"

namespace qel {
namespace {

std::string RecordsAre(std::uint64_t count) {
    return Counted(count, "record") + (count == 1 ? " is" : " are");
}

using Kind = RingDeviation::Kind;

std::string BehindText(const RingDeviation& deviation, unsigned sink) {
    const bool isSink = deviation.node == sink;
    return fmt::format(
        "{} are in no counter: {} had read them and not released them, or {} died while it {} them",
        Counted(deviation.bytes, "byte"),
        isSink ? "the sink" : fmt::format("node {}", deviation.node),
        isSink ? "the writer" : fmt::format("node {}", deviation.node + 1),
        isSink ? "wrote" : "took");
}

}  // namespace

std::string_view CodeOf(Kind kind) noexcept {
    switch (kind) {
        case Kind::NeverInitialised:
            return "never-initialised";
        case Kind::RecordHandedOn:
            return "record-handed-on";
        case Kind::FillerBegun:
            return "filler-begun";
        case Kind::FillerBytesLost:
            return "filler-bytes-lost";
        case Kind::FillerHandedOn:
            return "filler-handed-on";
        case Kind::TakingBytesLost:
            return "taking-bytes-lost";
        case Kind::RecordBytesLost:
            return "record-bytes-lost";
        case Kind::BytesLost:
            return "bytes-lost";
        case Kind::CountHigh:
            return "count-high";
        case Kind::CountLow:
            return "count-low";
        case Kind::CountWithoutLimit:
            return "count-without-limit";
        case Kind::FullRingLost:
            return "full-ring-lost";
        case Kind::IndicesContradict:
            return "indices-contradict";
        case Kind::CounterContradicts:
            return "counter-contradicts";
        case Kind::RecordsDamaged:
            return "records-damaged";
        case Kind::OutsideRing:
            return "outside-ring";
        case Kind::UsedUninitialised:
            return "used-uninitialised";
        case Kind::SizeDiffers:
            return "size-differs";
        case Kind::UnusedFieldsSet:
            break;
    }
    return "unused-fields";
}

std::string TextOf(const RingDeviation& deviation, const RingFields& fields, unsigned sink) {
    switch (deviation.kind) {
        case Kind::NeverInitialised:
            return "a process died while it opened it for the first time: the ring is not "
                   "initialised, and nobody will do it";
        case Kind::RecordHandedOn:
            return fmt::format(
                "the writer died after it handed on a record: wIdx[0] is {}, {} behind",
                fields.wIdx[0], Counted(deviation.bytes, "byte"));
        case Kind::FillerBegun:
            return fmt::format(
                "the writer died while it wrote a filler or in place: wIdx[0] is {}, {} ahead",
                fields.wIdx[0], Counted(deviation.bytes, "byte"));
        case Kind::FillerBytesLost:
            return fmt::format(
                "the writer died while it wrote a filler or in place: wIdx[0] is {}, 26 bytes "
                "ahead, "
                "and {} are in no counter",
                fields.wIdx[0], Counted(deviation.bytes, "byte"));
        case Kind::FillerHandedOn:
            return fmt::format(
                "the writer died after it handed on a filler or a packet in place: wIdx[0] is {}, "
                "{} behind",
                fields.wIdx[0], Counted(deviation.bytes, "byte"));
        case Kind::TakingBytesLost:
            return fmt::format("node {} died while it took a record: {} at {} are in no counter",
                               deviation.node, Counted(deviation.bytes, "byte"),
                               gsl::at(fields.rIdx, static_cast<gsl::index>(deviation.node)));
        case Kind::RecordBytesLost:
            return fmt::format("the writer died before it handed on a record: {} are in no counter",
                               Counted(deviation.bytes, "byte"));
        case Kind::BytesLost:
            return BehindText(deviation, sink);
        case Kind::CountHigh:
            return fmt::format(
                "numPackets is {}, and {} in the ring: the writer or the sink died while it "
                "counted, or the sink releases several packets at once, which counts as one",
                deviation.is, RecordsAre(deviation.should));
        case Kind::CountLow:
            return fmt::format(
                "numPackets is {}, and {} in the ring: packets were written before the limit was "
                "set",
                deviation.is, RecordsAre(deviation.should));
        case Kind::CountWithoutLimit:
            return fmt::format("numPackets is {} though the ring has no packet limit",
                               deviation.is);
        case Kind::FullRingLost:
            return fmt::format(
                "the ring was full to the last byte when a node died, and {} of it are in no "
                "counter: nobody can tell where they belong",
                Counted(deviation.bytes, "byte"));
        case Kind::IndicesContradict:
            return fmt::format(
                "wIdx[0] is {}, and what node 1 was given ends at {}: no record explains the "
                "difference",
                fields.wIdx[0], fields.rIdx[1] + fields.avail[1]);
        case Kind::CounterContradicts:
            return fmt::format("avail[{}] counts {} more than lie there", deviation.node,
                               Counted(deviation.bytes, "byte"));
        case Kind::RecordsDamaged:
            return "the indices do not stand between records, or records were overwritten";
        case Kind::OutsideRing:
            return "an index lies outside the ring, or a counter exceeds its size";
        case Kind::UsedUninitialised:
            return "fields are set though the ring was never initialised: whoever opens it sets "
                   "only some";
        case Kind::SizeDiffers:
            return fmt::format(
                "its data area has {}, and the ring was initialised with {} or one more: the "
                "object was cut or grown",
                Counted(deviation.is, "byte"), deviation.should);
        case Kind::UnusedFieldsSet:
            break;
    }
    return "fields that no chain of packets uses are set";
}

}  // namespace qel
