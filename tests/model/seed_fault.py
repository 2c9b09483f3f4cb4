#!/usr/bin/env python3
"""Writes a copy of one of the ring's sources with a fault in it.

usage: seed_fault.py NAME SOURCE COPY
"""

import pathlib
import sys

COPYING = """\
    std::uint64_t index = WriteData(start, header);
    for (const ByteSpan& part : data) {
        index = WriteData(index, part);
    }
"""
COUNTING = "    IncrementPackets();\n"
HANDING_ON = "    const SMStatusCode status = HandOn(packetLength);\n"
RELEASING = "ring_->ReleaseData(RecordLength(packet), 1);\n"

# What stands in the source, and what takes its place.
FAULTS = {
    "HandOnBeforeCopy": [
        (COPYING + COUNTING + HANDING_ON, COUNTING + HANDING_ON + COPYING),
    ],
    "ReleaseBeforeRead": [
        ("    return " + RELEASING, "    (void)packet;\n    return SMStatusCode::SUCCESS;\n"),
        ("    next.packet.data = payload.data;\n",
         "    next.packet.data = payload.data;\n    const Packet& packet = next.packet;\n    (void)" + RELEASING),
    ],
    "SubtractNotAtomic": [("avail.fetch_sub(size)", "avail.store(available - size)")],
    "AddNotAtomic": [("avail.fetch_add(size)", "avail.store(available + size)")],
    "AddRelaxed": [
        ("avail.fetch_add(size)", "avail.fetch_add(size, std::memory_order_relaxed)"),
    ],
    "HeaderRoomDropped": [("end <= size - headerLength", "end <= size")],
    "SpaceNotChecked": [("!room.Holds(packetLength, reserve) || ", "")],
    "CountedAfterHandOn": [(COUNTING + HANDING_ON, HANDING_ON + COUNTING)],
}


def main(name, source, copy):
    """Returns the exit status."""
    text = pathlib.Path(source).read_text(encoding="utf-8")
    for before, after in FAULTS[name]:
        if before not in text:
            print(f"{name}: {source} does not have the text\n{before}", file=sys.stderr)
            return 1
        text = text.replace(before, after)
    pathlib.Path(copy).write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
