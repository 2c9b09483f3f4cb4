"""Runs the programs of the comparison, each cell in processes of its own."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time

import plan

GUARD = 90  # seconds; whatever takes longer has hung
REFERENCE = ["pingpong", "--seconds=0.03"]
STEADY = 1.5  # times; beyond it the cores that the processes run on have changed meanwhile
ATTEMPTS = 3
ICEORYX_CHUNKS = 48


class Programs:
    """The programs in one folder. What is not built or does not run tells why."""

    def __init__(self, folder):
        self._folder = pathlib.Path(folder)

    def path(self, program):
        return self._folder / f"compare_{program}"

    def run(self, cell, environment=None):
        """The figures of a cell, or {"failed": why}."""
        path = self.path(cell.program)
        if not path.exists():
            packages = plan.PACKAGES_OF.get(cell.program, "")
            return {"failed": f"not built; needs the Debian packages {packages}", "missing": True}
        with contextlib.ExitStack() as stack:
            stack.enter_context(tidied())
            if cell.program == "iceoryx":
                failure = stack.enter_context(roudi(cell.size))
                if failure:
                    return {"failed": failure}
            return _figures([str(path), *cell.arguments], environment)

    def run_beside_reference(self, cell):
        """As `run`, with what a cache line takes from core to core at that time. Measures again if
        that changed meanwhile: a virtual machine's cores move."""
        for _ in range(ATTEMPTS):
            before = self._reference()
            result = self.run(cell)
            after = self._reference()
            result["reference_ns"] = (before + after) / 2
            if "failed" in result or max(before, after) < STEADY * min(before, after):
                break
        return result

    def _reference(self):
        return _figures([str(self.path("limits")), *REFERENCE], None)["p50_ns"]


def _figures(command, environment):
    try:
        done = subprocess.run(
            command,
            check=False,
            capture_output=True,
            text=True,
            timeout=_guard(command),
            env=None if environment is None else {**os.environ, **environment},
        )
    except subprocess.TimeoutExpired:
        return {"failed": "hangs"}
    for line in reversed(done.stdout.splitlines()):  # libraries write there, too
        if done.returncode == 0 and line.startswith("{"):
            figures = json.loads(line)
            if "refused" in figures:
                return {"failed": figures["refused"], "refused": True}
            return figures
    lines = done.stderr.strip().splitlines() or [f"status {done.returncode}"]
    reasons = [line for line in lines if line.startswith("node failed: ")]
    return {"failed": reasons[0][len("node failed: "):] if reasons else lines[-1]}


def _guard(command):
    for argument in command:
        if argument.startswith("--patience="):
            return int(argument.split("=")[1]) + GUARD
    return GUARD


@contextlib.contextmanager
def tidied():
    """Removes what Fast DDS leaves in shared memory."""

    def left():
        folder = pathlib.Path("/dev/shm")
        return {path for pattern in ("fastrtps_*", "sem.fastrtps_*", "fast_datasharing_*")
                for path in folder.glob(pattern)}

    before = left()
    try:
        yield
    finally:
        for path in left() - before:
            path.unlink(missing_ok=True)


@contextlib.contextmanager
def roudi(size):
    """iceoryx's daemon, with a pool of chunks for messages of this size. Gives why it cannot run,
    or None."""
    program = shutil.which("iox-roudi")
    if program is None:
        yield "iox-roudi is not there; needs the Debian package iceoryx"
        return
    pool = (size + 63) // 64 * 64
    with tempfile.TemporaryDirectory() as folder:
        config = pathlib.Path(folder) / "roudi.toml"
        config.write_text(
            "[general]\nversion = 1\n[[segment]]\n[[segment.mempool]]\n"
            f"size = {pool}\ncount = {ICEORYX_CHUNKS}\n",
            encoding="utf-8",
        )
        log = pathlib.Path(folder) / "log"
        with open(log, "w", encoding="utf-8") as output:
            process = subprocess.Popen(
                [program, "-c", str(config)], stdout=output, stderr=subprocess.STDOUT
            )
        try:
            yield _await_ready(process, log)
        finally:
            objects = _shared_objects(process)
            process.terminate()
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            # It does not end in order when the processes that it knew have gone.
            for path in objects:
                path.unlink(missing_ok=True)


def _shared_objects(process):
    """What a process has mapped from /dev/shm."""
    with contextlib.suppress(OSError):
        maps = pathlib.Path(f"/proc/{process.pid}/maps").read_text(encoding="utf-8")
        return {pathlib.Path(path) for path in re.findall(r"(/dev/shm/\S+)$", maps, re.MULTILINE)}
    return set()


def _await_ready(process, log):
    until = time.monotonic() + 15
    while time.monotonic() < until:
        if "RouDi is ready for clients" in log.read_text(encoding="utf-8", errors="replace"):
            return None
        if process.poll() is not None:
            break
        time.sleep(0.02)
    return "iox-roudi does not come up"
