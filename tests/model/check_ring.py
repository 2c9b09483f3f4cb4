#!/usr/bin/env python3
"""Searches the states of ring.pml with Spin.

usage: check_ring.py search|mutants WORK_DIRECTORY [--long]

search   The protocol as it is: no property may be broken, nothing may stand still, and every
         statement of the model must have been reached.
mutants  The protocol with one seeded fault at a time: each must break the property named here.
--long   Larger bounds, five nodes, and the search for runs that never deliver a packet. So does
         QEV_TEST_LONG=1 in the environment.

Exit status 77: Spin or a C compiler is not there.
"""

import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

MODEL = pathlib.Path(__file__).resolve().parent / "ring.pml"
SKIPPED = 77

# Small enough for all states, large enough for fillers, several records, and both kinds of packet.
SMALL = "-DSIZE=9 -DHEADER=2 -DRESERVE=2"
LIMITED = SMALL + " -DMAX_PACKETS=3"

EXHAUSTIVE = "-DSAFETY"
COMPRESSED = "-DSAFETY -DCOLLAPSE"
PROGRESS = "-DNP"
BITSTATE = "-DSAFETY -DBITSTATE"

SHORT_RUNS = [
    ("no packet limit", SMALL, EXHAUSTIVE),
    ("packet limit, two records held", LIMITED + " -DHOLD=2", EXHAUSTIVE),
]

LONG_RUNS = [
    ("five headers' reserve", "-DSIZE=14 -DHEADER=2 -DMAX_PACKETS=4", COMPRESSED),
    ("small headers", "-DSIZE=7", EXHAUSTIVE),
    ("small headers, packet limit", "-DSIZE=8 -DMAX_PACKETS=3", EXHAUSTIVE),
    ("numbered packets", SMALL + " -DMARKS=5", COMPRESSED),
    ("larger", "-DSIZE=10 -DHEADER=2 -DRESERVE=2 -DMAX_PACKETS=4 -DHOLD=2", COMPRESSED),
    ("progress", LIMITED, PROGRESS),
    ("progress, no packet limit", SMALL, PROGRESS),
    ("five nodes", "-DNODES=5 " + LIMITED, BITSTATE),
]

# The faults in the order of their numbers in the model: what they break, and where that shows.
MUTANTS = [
    ("HAND_ON_BEFORE_COPY", "record_intact", LIMITED),
    ("RELEASE_BEFORE_READ", "record_intact", LIMITED),
    ("SUBTRACT_NOT_ATOMIC", "bytes_conserved", LIMITED),
    ("HEADER_ROOM_DROPPED", "header_room_kept", LIMITED),
    ("ADD_NOT_ATOMIC", "bytes_conserved", LIMITED),
    ("SPACE_NOT_CHECKED", "nothing_overwritten", "-DSIZE=4 -DHEADER=2 -DRESERVE=0 -DLARGEST=0"),
    ("RESERVE_IGNORED", "reserve_kept", LIMITED),
    ("FILLER_NOT_COUNTED", "packets_counted", LIMITED),
    ("COUNTED_AFTER_HAND_ON", "counter_not_clamped", LIMITED),
    ("HANDED_ON_IN_TWO_PARTS", "payload_there", LIMITED),
    ("HEADER_READ_UNASKED", "record_intact", LIMITED),
    ("BARE_HEADER_OVERLOOKED", "deadlock", LIMITED),
    ("COUNT_OUT_NOT_ATOMIC", "packets_counted", LIMITED),
]


class Failure(Exception):
    """The search did not end as it should."""


def search(work, defines, compiler_flags, optimise, pan_arguments):
    """Generates, compiles and runs a verifier; returns what it printed."""
    with tempfile.TemporaryDirectory(dir=work) as directory:
        def run(*command):
            return subprocess.run(command, cwd=directory, text=True, check=False,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        generated = run("spin", *defines.split(), "-a", str(MODEL))
        if generated.returncode != 0:
            raise Failure(generated.stdout)
        compiled = run(compiler(), "-w", optimise, *compiler_flags.split(), "-o", "pan", "pan.c")
        if compiled.returncode != 0:
            raise Failure(compiled.stdout)
        return run("./pan", *pan_arguments).stdout


def compiler():
    """A C compiler; g++ brings one."""
    return shutil.which("gcc") or shutil.which("cc")


def number_in(text, pattern):
    """The number behind a pattern in a verifier's report, as it stands there."""
    found = re.search(pattern, text)
    return found.group(1) if found else "?"


def broken_property(report):
    """What a verifier found to be broken, or None."""
    violated = re.search(r"^pan:1: assertion violated .*\|\|(\w+)\)", report, re.MULTILINE)
    if violated:
        return violated.group(1)
    if "pan:1: invalid end state" in report:
        return "deadlock"
    if "pan:1: non-progress cycle" in report:
        return "no progress"
    return None if re.search(r"errors: 0$", report, re.MULTILINE) else "unknown:\n" + report


def unreached_lines(report):
    """Places in the model of which some statement was never executed."""
    return set(re.findall(r"(\w+\.pml:\d+), state \d+, \"(?!-end-)", report))


def run_search(work, run):
    """One search of the protocol as it is; returns the lines that it did not reach."""
    title, defines, flags = run
    arguments = {
        EXHAUSTIVE: ["-m3000000"],
        COMPRESSED: ["-m20000000"],
        PROGRESS: ["-m8000000", "-l"],
        BITSTATE: ["-m20000000", "-w34", "-k3"],
    }[flags]
    began = time.monotonic()
    report = search(work, defines, flags, "-O2", arguments)
    broken = broken_property(report)
    if broken:
        raise Failure(f"{title}: {broken}")
    # Out of memory it ends with "errors: 0" too.
    if "Search not completed" in report or (
            "max search depth too small" in report and flags != BITSTATE):
        raise Failure(f"{title}: not all states were searched")
    states = number_in(report, r"(\S+) states, stored")
    memory = number_in(report, r"(\S+)\s+total actual memory usage")
    factor = number_in(report, r"hash factor: (\S+)")
    coverage = f", hash factor {factor}" if flags == BITSTATE else ""
    depth = number_in(report, r"depth reached (\d+)")
    print(f"{title}: {states} states, depth {depth}, "
          f"{memory} MB, {time.monotonic() - began:.1f} s{coverage}  [{defines}] [{flags}]",
          flush=True)
    return unreached_lines(report)


def check_protocol(work, runs):
    """All searches; together they reach every statement."""
    unreached = set.intersection(*[run_search(work, run) for run in runs])
    if unreached:
        raise Failure("never executed: " + ", ".join(sorted(unreached)))


def check_mutants(work):
    """Every seeded fault is caught by the property that it breaks."""
    def caught_by(number):
        _, _, defines = MUTANTS[number - 1]
        report = search(work, f"-DMUTANT={number} {defines}", "-DSAFETY", "-O0", ["-m2000000"])
        return broken_property(report)
    wrong = []
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        outcomes = pool.map(caught_by, range(1, len(MUTANTS) + 1))
        for (name, expected, _), found in zip(MUTANTS, outcomes):
            print(f"{name}: {found}", flush=True)
            if found != expected:
                wrong.append(f"{name}: {found or 'survived'} instead of {expected}")
    if wrong:
        raise Failure("\n".join(wrong))


def main(arguments):
    """Returns the exit status."""
    if len(arguments) < 2 or arguments[0] not in ("search", "mutants"):
        print(__doc__)
        return 2
    for tool, found in (("spin", shutil.which("spin")), ("a C compiler", compiler())):
        if not found:
            print(f"skipped: {tool} is not there")
            return SKIPPED
    work = pathlib.Path(arguments[1])
    work.mkdir(parents=True, exist_ok=True)
    is_long = "--long" in arguments or os.environ.get("QEV_TEST_LONG") == "1"
    try:
        if arguments[0] == "mutants":
            check_mutants(work)
        else:
            check_protocol(work, SHORT_RUNS + (LONG_RUNS if is_long else []))
    except Failure as failure:
        print(failure)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
