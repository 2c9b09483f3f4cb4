"""What does not depend on the clock and is measured once: allocations, system calls and
instructions of a packet, and memory."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile

import plan

FEW = 2_000
MANY = 42_000
VERY_MANY = 402_000  # where processes that wait for each other make a few calls more or less
BEHIND_A_LAP = ["--ring=1048576"]


def measure(programs, library, only):
    if only and not re.search(only, "once"):
        return {}
    return {
        "allocations": _allocations(programs),
        "system_calls": {
            name: _system_calls(programs, program, arguments)
            for name, program, arguments in (
                ("write, read, release", "limits", ["one-thread", *BEHIND_A_LAP]),
                ("stream, spinning", "own", ["stream", "--transport=qev-spin"]),
                ("stream, adaptive", "own", ["stream", "--transport=qev-adaptive"]),
                ("stream, semaphore", "own", ["stream", "--transport=qev-semaphore"]),
            )
        },
        "instructions": {
            "library": _instructions(programs, []),
            "bare": _instructions(programs, ["--bare"]),
        },
        "resident": _resident(programs),
        "library_bytes": _stripped_size(library),
    }


def _count_option(program, count):
    return f"--packets={count}" if program == "limits" else f"--messages={count}"


def _allocations(programs):
    """Of writer and reader together, for each packet."""
    preload = {"LD_PRELOAD": str(programs.path("count_allocations").parent
                                 / "libcompare_count_allocations.so")}
    found = {}
    for name in ("qev-spin", "qev-adaptive", "qev-semaphore"):
        cell = plan.Cell("once", name, "own",
                         ["stream", f"--transport={name}", f"--messages={MANY}"], 64)
        result = programs.run(cell, preload)
        found[name] = result["allocations"] / MANY if "failed" not in result else result["failed"]
    return found


def _calls_of(command, folder):
    log = pathlib.Path(folder) / "strace"
    subprocess.run(["strace", "-f", "-c", "-o", str(log), *command], check=True,
                   capture_output=True, timeout=120)
    for line in log.read_text(encoding="utf-8").splitlines():
        fields = line.split()
        if fields and fields[-1] == "total":
            return int(fields[3])
    raise ValueError("strace tells no total")


def _difference(count, many):
    """`count(packets)` for each packet beyond the first few, or why it cannot be told."""
    try:
        return (count(many) - count(FEW)) / (many - FEW)
    except (OSError, ValueError, subprocess.SubprocessError) as failure:
        return f"cannot be counted: {failure}"


def _system_calls(programs, program, arguments):
    if shutil.which("strace") is None:
        return "strace is not there"
    with tempfile.TemporaryDirectory() as folder:
        return _difference(lambda packets: _calls_of(
            [str(programs.path(program)), *arguments, _count_option(program, packets)], folder),
            VERY_MANY)


def _counted_by_perf(command):
    done = subprocess.run(["perf", "stat", "-x,", "-e", "instructions:u", "--", *command],
                          check=True, capture_output=True, text=True, timeout=120)
    for line in done.stderr.splitlines():
        fields = line.split(",")
        if len(fields) > 2 and fields[2].startswith("instructions") and fields[0].isdigit():
            return int(fields[0])
    raise ValueError("perf counts no instructions here")


def _counted_by_callgrind(command):
    done = subprocess.run(
        ["valgrind", "--tool=callgrind", f"--callgrind-out-file={os.devnull}", *command],
        check=True, capture_output=True, text=True, timeout=300)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if not found:
        raise ValueError("callgrind counts nothing")
    return int(found.group(1))


def _instructions(programs, arguments):
    """Of writing, reading and releasing 64 B."""
    command = [str(programs.path("limits")), "one-thread", *BEHIND_A_LAP, *arguments]
    for tool, counted in (("perf", _counted_by_perf), ("valgrind", _counted_by_callgrind)):
        if shutil.which(tool):
            count = _difference(lambda packets, run=counted: run(
                [*command, _count_option("limits", packets)]), MANY)
            if not isinstance(count, str):
                return {"count": count, "by": tool}
    return {"count": "neither perf nor valgrind counts here", "by": ""}


def _resident(programs):
    """Bytes that writer and reader hold beside what is mapped from files."""
    cell = plan.Cell("once", "resident", "own",
                     ["stream", "--transport=qev-adaptive", "--messages=1000"], 64)
    result = programs.run(cell)
    if "failed" in result:
        return result["failed"]
    return max(result["writer_resident"], result["reader_resident"])


def _stripped_size(library):
    if not library or not shutil.which("strip"):
        return "not told"
    with tempfile.TemporaryDirectory() as folder:
        stripped = pathlib.Path(folder) / "library"
        subprocess.run(["strip", "-o", str(stripped), library], check=True)
        return stripped.stat().st_size
