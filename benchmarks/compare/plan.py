"""What is measured: transports, sizes, and the cells that a round consists of."""

import collections

MIB = 1 << 20
FRAME_1080P = 1920 * 1080 * 3 // 2
FRAME_4K = 3840 * 2160 * 3 // 2

SIZES = (64, 1024, 16384, 65536, MIB, 4 * MIB, FRAME_1080P, FRAME_4K)
SIZE_NAMES = {
    64: "64 B",
    1024: "1 KiB",
    16384: "16 KiB",
    65536: "64 KiB",
    MIB: "1 MiB",
    4 * MIB: "4 MiB",
    FRAME_1080P: "1080p",
    FRAME_4K: "4K",
}
RING = 64 * MIB
SMALL_RINGS = (4 * MIB, 16 * MIB)
GROWING_RINGS = tuple(size * MIB for size in (1, 4, 16, 64, 256, 1024))
NODES = (2, 3, 4, 5)
BLOCKS = (4096, MIB, 64 * MIB, 256 * MIB)
YOUNGEST = 5  # the power of ten of the first window of packets
LAP_RING = 256 * MIB
LAPS = 6  # of which the first is the one in question
LAP_MESSAGE = 65536

# Program, the Debian packages that it needs to be built, and its transports.
Peer = collections.namedtuple("Peer", "program packages transports")
PEERS = (
    Peer(
        "own",
        "",
        ("qev-tight", "qev-spin", "qev-adaptive", "qev-semaphore", "qev-in-place")
        + ("pipe", "unix-stream", "unix-seqpacket", "posix-mqueue"),
    ),
    Peer("boost", "libboost-dev", ("boost-mq", "boost-mq-spin", "boost-spsc")),
    Peer(
        "iceoryx",
        "libiceoryx-posh-dev iceoryx",
        ("iceoryx-copy", "iceoryx-loan", "iceoryx-woken"),
    ),
    Peer("zeromq", "libzmq3-dev", ("zeromq",)),
    Peer("nng", "libnng-dev", ("nng",)),
    Peer("gstreamer", "libgstreamer-plugins-base1.0-dev", ("gst-shm",)),
    Peer("fastdds", "libfastrtps-dev libfastcdr-dev", ("fastdds", "fastdds-sharing")),
    Peer("cyclonedds", "cyclonedds-dev cyclonedds-tools", ("cyclonedds",)),
)
PROGRAM_OF = {name: peer.program for peer in PEERS for name in peer.transports}
PACKAGES_OF = {peer.program: peer.packages for peer in PEERS}
TRANSPORTS = tuple(PROGRAM_OF)
# These poll in place of waiting in the kernel, which the tables of round trips tell apart.
SPINNING = (
    "qev-tight",
    "qev-spin",
    "qev-adaptive",
    "qev-in-place",
    "boost-mq-spin",
    "boost-spsc",
    "iceoryx-copy",
    "iceoryx-loan",
)
# These make the message where it lies, and are measured without filling it.
IN_PLACE = ("qev-in-place", "iceoryx-loan")

# `arguments` go to the program `compare_<program>`. Cells of a group take turns.
Cell = collections.namedtuple("Cell", "group name program arguments size")


def _options(**values):
    return [f"--{name.replace('_', '-')}={value}" for name, value in values.items()]


def _limits(group, name, command, *arguments, size=0):
    return Cell(group, name, "limits", [command, *arguments], size)


def _stream_group(size, ring, transports, read_all):
    group = f"stream{'-all' if read_all else ''}/{ring // MIB}/{size}"
    flags = ["--read-all"] if read_all else []
    cells = [
        Cell(
            group,
            name,
            PROGRAM_OF[name],
            ["stream", f"--transport={name}", *_options(size=size, ring=ring), *flags],
            size,
        )
        for name in transports
    ]
    if not read_all:
        copy = _options(size=size, ring=ring)
        cells.append(_limits(group, "memcpy", "copy", *copy, size=size))
        cells.append(_limits(group, "memcpy-nt", "copy", *copy, "--non-temporal", size=size))
    return cells


def _round_trip_group(size):
    group = f"roundtrip/{size}"
    cells = [
        Cell(
            group,
            name,
            PROGRAM_OF[name],
            ["roundtrip", f"--transport={name}", *_options(size=size, ring=4 * MIB)],
            size,
        )
        for name in TRANSPORTS
    ]
    cells.append(_limits(group, "cache-line", "pingpong"))
    cells.append(_limits(group, "semaphore", "semaphores"))
    return cells


def _own(group, name, transport, *arguments, size=64):
    command = ["stream", f"--transport={transport}", f"--size={size}", *arguments]
    return Cell(group, name, "own", command, size)


def _chains():
    cells = [
        _own(f"chain/{size}", f"{nodes}", f"qev-chain-{nodes}", size=size)
        for size in (64, 65536)
        for nodes in NODES
    ]
    ring = _options(size=64, ring=4 * MIB)
    return cells + [
        _limits("chain/one-thread", f"{nodes}", "one-thread", *ring, f"--nodes={nodes}")
        for nodes in NODES
    ]


def _growth():
    cells = []
    for ring in GROWING_RINGS:
        name = f"{ring // MIB}"
        cells.append(_own("growth/stream", name, "qev-adaptive", f"--ring={ring}"))
        size = _options(size=64, ring=ring)
        cells.append(_limits("growth/one-thread", name, "one-thread", *size))
        cells.append(_limits("growth/bare", name, "one-thread", "--bare", *size))
    return cells


def _age(longest):
    # A window of a tenth ends at each power of ten.
    ends = [10**power for power in range(YOUNGEST, longest + 1)]
    marks = ",".join(str(mark) for end in ends for mark in (end - end // 10, end))
    return [
        _own("age", "qev-adaptive", "qev-adaptive", f"--messages={ends[-1]}", f"--marks={marks}",
             f"--ring={4 * MIB}", "--patience=1200")
    ]


def _first_laps():
    lap = LAP_RING // (LAP_MESSAGE + 26)
    marks = ",".join(str(lap * number) for number in range(1, LAPS + 1))
    arguments = [f"--messages={lap * LAPS}", f"--marks={marks}", f"--ring={LAP_RING}"]
    return [
        _own("first-lap", "populated", "qev-adaptive", *arguments, size=LAP_MESSAGE),
        _own("first-lap", "not populated", "qev-adaptive", *arguments, "--not-populated",
             size=LAP_MESSAGE),
    ]


def _idle():
    rates = (("nothing", 0.5), ("30/s", 30))
    return [
        _own(f"idle/{label}", name, name, f"--rate={rate}", "--seconds=2")
        for label, rate in rates
        for name in ("qev-spin", "qev-adaptive", "qev-semaphore")
    ]


def _rest():
    cells = []
    for size in BLOCKS:
        cells.append(_limits(f"block/{size}", "library", "block", f"--size={size}"))
        cells.append(_limits(f"block/{size}", "raw", "block", f"--size={size}", "--bare"))
    ring = _options(size=64, ring=4 * MIB)
    cells.append(_limits("one-thread", "library", "one-thread", *ring))
    cells.append(_limits("one-thread", "bare", "one-thread", "--bare", *ring))
    return cells


def full(longest_age):
    """All cells of a round."""
    cells = []
    for size in SIZES:
        cells += _stream_group(size, RING, TRANSPORTS, False)
        for ring in SMALL_RINGS:
            cells += _stream_group(size, ring, ("qev-spin", "qev-adaptive"), False)
        cells += _stream_group(size, RING, TRANSPORTS, True)
    for size in (64, 65536):
        cells += _round_trip_group(size)
    return cells + _chains() + _growth() + _age(longest_age) + _first_laps() + _idle() + _rest()


def quick():
    """Few messages through every transport, every line of them read."""
    few = ["--messages=24", "--patience=10"]
    cells = _stream_group(64, RING, TRANSPORTS, True)
    cells += _stream_group(FRAME_1080P, RING, TRANSPORTS, True)
    cells += [cell for cell in _round_trip_group(65536) if cell.program != "limits"]
    cells += [cell for cell in _chains() if cell.size == 65536]
    return [cell._replace(arguments=cell.arguments + few) for cell in cells]
