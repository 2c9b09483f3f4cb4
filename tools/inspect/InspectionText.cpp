#include <fmt/format.h>

#include <algorithm>
#include <gsl/util>

#include "RingInspection.h"
#include "Text.h"
#include "UserText.h"

namespace qel {
namespace {

constexpr std::uint64_t kBlockUnit = 512;  // of st_blocks
constexpr unsigned kPermissions = 07777;

std::string NodeText(unsigned node, unsigned sink) {
    return node == 0      ? "writer"
           : node == sink ? fmt::format("node {}, sink", node)
                          : fmt::format("node {}", node);
}

std::string ObjectText(const std::string& name, const RingInspection& ring) {
    const struct stat& status = ring.status;
    return fmt::format(
        "ring       {}\n"
        "object     {}, {} bytes, {} allocated, mode {:04o}, user {}, group {}\n",
        OneLine(name), OneLine(RingPath(name)), status.st_size,
        BytesText(static_cast<double>(status.st_blocks) * kBlockUnit),
        status.st_mode & kPermissions, UserText(status.st_uid), GroupText(status.st_gid));
}

std::string UsersText(const RingInspection& ring) {
    constexpr const char* kNextLine = "\n           ";
    std::string text;
    for (const ObjectUser& user : ring.users) {
        text += (text.empty() ? "" : kNextLine) + UserText(user);
    }
    if (text.empty()) {
        text = ring.hiddenProcesses == 0 ? "nobody" : "nobody that this user can see";
    }
    if (ring.hiddenProcesses > 0) {
        text +=
            fmt::format("{}processes hidden from this user: {}", kNextLine, ring.hiddenProcesses);
    }
    return fmt::format("used by    {}\n", text);
}

std::string LimitText(const RingFields& fields) {
    return fields.maxPackets == 0 ? "packets    not counted, no limit\n"
                                  : fmt::format("packets    {} counted, at most {}\n",
                                                fields.numPackets, fields.maxPackets);
}

std::string ControlBlockText(const RingFields& fields) {
    std::string text =
        fmt::format("\n{:<8} {:>20} {:>20} {:>20}\n", "node", "avail", "wIdx", "rIdx");
    for (gsl::index node = 0; node < static_cast<gsl::index>(kMaxNodes); ++node) {
        text += fmt::format("{:<8} {:>20} {:>20} {:>20}\n", node, gsl::at(fields.avail, node),
                            gsl::at(fields.wIdx, node), gsl::at(fields.rIdx, node));
    }
    return text + fmt::format(
                      "numPackets {}, maxPackets {}, initialised {}, halfSize {}, "
                      "quarterSize {}, reserved {}\n",
                      fields.numPackets, fields.maxPackets, fields.initialised, fields.halfSize,
                      fields.quarterSize, fields.reservedAreZero ? "0" : "not 0");
}

std::string CountText(const RecordWalk& walk) {
    std::string text = (walk.isCut ? "more than " : "") + Counted(walk.count, "record");
    if (walk.fillers > 0) {
        text += fmt::format(", {} of them {}", walk.fillers,
                            walk.fillers == 1 ? "a filler" : "fillers");
    }
    return text;
}

std::string BytesAndCount(const RingStretch& stretch) {
    return fmt::format("{} bytes, {}", stretch.bytes, CountText(stretch.walk));
}

std::string FlowText(const RingInspection& ring) {
    if (!ring.flow) {
        return "\nThese are not the fields of a ring of this size: nothing can be derived.\n";
    }
    std::string text =
        fmt::format("\nfree       {} of {} bytes; the largest packet that fits now has {} bytes\n",
                    ring.flow->free, ring.size, ring.largestNow);
    text += fmt::format("{:<15} {:<38} {}\n", "", "waiting for it", "held by it");
    for (std::size_t at = 0; at + 1 < ring.stretches.size(); at += 2) {
        const RingStretch& held = ring.stretches[at];
        const RingStretch& waiting = ring.stretches[at + 1];
        text += fmt::format("{:<15} {:<38} {}\n", NodeText(held.node, ring.sink),
                            BytesAndCount(waiting), BytesAndCount(held));
    }
    if (!ring.isSinkGiven) {
        text += "The chain's length is what has been reached so far; --nodes tells it.\n";
    }
    return text;
}

std::string InvariantsText(const RingInspection& ring) {
    std::string text = "\n";
    for (const Invariant& invariant : ring.invariants) {
        const char* const verdict = !invariant.holds   ? "unknown"
                                    : *invariant.holds ? "holds"
                                                       : "BROKEN";
        text += fmt::format("{:<10} {}{}{}\n", verdict, invariant.text,
                            invariant.detail.empty() ? "" : ": ", invariant.detail);
    }
    if (!ring.isStill) {
        text +=
            "The ring is at work: what was loaded one after the other need not belong together.\n";
    }
    return text;
}

std::string HexText(const RecordView& record) {
    constexpr std::size_t kPerLine = 16;
    std::string text;
    for (std::size_t start = 0; start < record.payload.size(); start += kPerLine) {
        std::string hex;
        std::string plain;
        for (std::size_t at = start; at < std::min(start + kPerLine, record.payload.size()); ++at) {
            const unsigned char byte = record.payload[at];
            hex += fmt::format("{:02x} ", byte);
            plain += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
        }
        text += fmt::format("    {:08x}  {:<48} {}\n", start, hex, plain);
    }
    return text;
}

std::string RecordText(const RecordView& record) {
    const PacketHeader& header = record.header;
    const std::uint64_t length = header.length;
    const std::int64_t pts = header.pts;
    const std::uint32_t seconds = header.timestampSec;
    const std::uint32_t microseconds = header.timestampUsec;
    return fmt::format("  {:>12}  {:>10} bytes  {:<6}  pts {:<20} {:<3}  time {}.{:06}\n",
                       record.offset, length, header.ignoreData ? "filler" : "packet", pts,
                       header.key ? "key" : "", seconds, microseconds) +
           HexText(record);
}

std::string RecordsText(const RingInspection& ring) {
    std::string text;
    for (const RingStretch& stretch : ring.stretches) {
        if (stretch.bytes == 0) {
            continue;
        }
        text += fmt::format("\n{} {}, {} bytes from {} on\n",
                            stretch.isHeld ? "held by" : "waiting for",
                            NodeText(stretch.node, ring.sink), stretch.bytes, stretch.offset);
        for (const RecordView& record : stretch.walk.records) {
            text += RecordText(record);
        }
        if (stretch.walk.count > stretch.walk.records.size()) {
            text +=
                fmt::format("  and {} more\n", stretch.walk.count - stretch.walk.records.size());
        }
        if (stretch.walk.rest > 0) {
            text += fmt::format("  {} bytes that are no record\n", stretch.walk.rest);
        }
    }
    return text.empty() ? "\nno record is in the ring\n" : text;
}

}  // namespace

std::string TextOf(const std::string& name, const RingInspection& ring,
                   const InspectOptions& options) {
    std::string text = ObjectText(name, ring) + fmt::format("data area  {} bytes\n", ring.size) +
                       LimitText(ring.fields) + UsersText(ring) + ControlBlockText(ring.fields);
    if (ring.size == 0 && ring.status.st_size != 0) {
        return text + "\n" + TooShortText(ring.status) + "\n";
    }
    if (ring.isFresh) {
        return text + "\nfresh: nobody has opened it yet\n";
    }
    text += FlowText(ring) + InvariantsText(ring);
    if (options.records.records > 0) {
        text += RecordsText(ring);
    }
    return text;
}

}  // namespace qel
