"""What the multi-process tests share: processes that run gst-launch-1.0, what their bufferlog
elements tell, and unique ring names; all of it ended and removed also when a test fails."""

import collections
import contextlib
import itertools
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

# A guard only: whatever takes this long has hung.
GUARD = 60

_counter = itertools.count()

Buffer = collections.namedtuple(
    "Buffer", "md5 size pts dts duration offset offset_end flags access capture_time"
)

DISCONT = 1 << 6
DELTA_UNIT = 1 << 13


def skip(reason):
    """Tells ctest that the script cannot run here."""
    print(f"skipped: {reason}")
    sys.exit(77)


def require_elements(*names):
    """Ends the script where an element is missing. What was built with a sanitizer cannot be loaded
    by a program that was not; then the script is skipped."""
    for name in ("qevsrc", "qevsink", "bufferlog") + names:
        # "--exists" would ask for a plugin of GStreamer's own version.
        found = subprocess.run(["gst-inspect-1.0", name], check=False, capture_output=True)
        if found.returncode != 0:
            reason = f"gst-launch-1.0 cannot load the element {name}"
            if "QEV_SANITIZERS" in os.environ:
                skip(reason)
            sys.exit(reason)


def run_tests(arguments=()):
    """Runs the cases that `arguments` name, or all; the status says it when all were skipped."""
    program = unittest.main(argv=[sys.argv[0], *arguments], exit=False)
    result = program.result
    if result.testsRun and len(result.skipped) == result.testsRun:
        skip(result.skipped[0][1])
    sys.exit(not result.wasSuccessful())


class BufferLog:
    """The element bufferlog in a pipeline, and the lines that it writes."""

    def __init__(self):
        self._reading_end, self.writing_end = os.pipe()
        self._lines = []
        self._ended = False
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        with open(self._reading_end, encoding="utf-8") as lines:
            for line in lines:
                with self._changed:
                    self._lines.append(line.rstrip("\n"))
                    self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def __str__(self):
        return f"bufferlog fd={self.writing_end}"

    def close_here(self):
        """Leaves the writing end to the process that was started with it."""
        os.close(self.writing_end)

    def wait_for(self, what, holds):
        with self._changed:
            reached = self._changed.wait_for(lambda: holds() or self._ended, GUARD)
            if not reached or not holds():
                raise AssertionError(
                    f"no {what}, but {len(self._lines)} lines; the last: {self._lines[-3:]}"
                )

    def wait_for_buffers(self, count):
        self.wait_for(f"{count} buffers", lambda: len(self.buffers()) >= count)

    def wait_for_caps(self):
        self.wait_for("caps", self.caps)

    def wait_for_end(self):
        """Waits until no process holds the log any more; then all its lines are here."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._ended, GUARD):
                raise AssertionError("a process that should have ended still holds the log")

    def of(self, kind):
        with self._changed:
            return [
                line[len(kind) :].strip() for line in self._lines if line.split()[0] == kind
            ]

    def buffers(self):
        return [_buffer(fields) for fields in self.of("buffer")]

    def widths(self):
        """For each buffer, the width in the caps that held for it."""
        width = None
        found = []
        with self._changed:
            lines = list(self._lines)
        for line in lines:
            if line.startswith("caps "):
                width = int(re.search(r"width=\(int\)(\d+)", line).group(1))
            elif line.startswith("buffer "):
                found.append(width)
        return found

    def caps(self):
        return self.of("caps")

    def eos(self):
        return len(self.of("eos"))


def _buffer(fields):
    md5, *numbers, access, capture_time = fields.split()
    return Buffer(md5, *map(_number, numbers), access, _number(capture_time))


def _number(text):
    return None if text == "-" else int(text)


class Process:
    """A gst-launch-1.0, or another program, with its output."""

    def __init__(self, command, logs, environment, stdin=None):
        # When the test is killed, nothing may stay behind.
        self.command = ["setpriv", "--pdeathsig", "KILL", *command]
        self._lines = []
        self._changed = threading.Condition()
        self._process = subprocess.Popen(
            self.command,
            stdin=stdin or subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            env={**os.environ, **environment},
            pass_fds=[log.writing_end for log in logs],
        )
        self.pid = self._process.pid
        for log in logs:
            log.close_here()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        with self._process.stdout as lines:
            for line in lines:
                if "(state-changed)" in line:
                    continue  # most of the messages, and of no use
                with self._changed:
                    self._lines.append(line.rstrip("\n"))
                    self._changed.notify_all()
        with self._changed:
            self._lines.append(None)
            self._changed.notify_all()

    @property
    def stdin(self):
        """The descriptor that feeds the process."""
        return self._process.stdin.fileno()

    def feed(self, data):
        view = memoryview(data)
        while view:
            view = view[os.write(self.stdin, view) :]

    def end_of_feed(self):
        self._process.stdin.close()

    def output(self):
        with self._changed:
            return "\n".join(line for line in self._lines if line is not None)

    def wait_for_output(self, pattern):
        def there():
            return re.search(pattern, self.output()) or self._lines[-1:] == [None]

        with self._changed:
            self._changed.wait_for(there, GUARD)
        found = re.search(pattern, self.output())
        if not found:
            raise AssertionError(f"{pattern!r} is not in the output:\n{self.output()}")
        return found

    def interrupt(self):
        self._process.send_signal(signal.SIGINT)

    def kill(self):
        self._process.kill()
        self._process.wait()
        self._thread.join(GUARD)
        if self._process.stdin:
            with contextlib.suppress(BrokenPipeError):
                self._process.stdin.close()

    def wait(self):
        """The exit status, once all output is here."""
        try:
            status = self._process.wait(GUARD)
        except subprocess.TimeoutExpired as error:
            raise AssertionError(
                f"still running: {shlex.join(self.command)}\n{self.output()}"
            ) from error
        self._thread.join(GUARD)
        return status

    def stats(self):
        """The fields of the element message "qev-stats" by element name; the last one counts."""
        found = {}
        for element, fields in re.findall(
            r'from element "(\w+)" \(element\): qev-stats, (.*);', self.output()
        ):
            found[element] = {
                key: int(value)
                for key, value in re.findall(r"([\w-]+)=\(\w+\)(-?\d+)", fields)
            }
        return found


class LaunchTest(unittest.TestCase):
    """A test that starts pipelines."""

    maxDiff = 2000

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="qev_gst_"))
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self._processes = []
        self.addCleanup(self._end_processes)

    def _end_processes(self):
        for process in self._processes:
            process.kill()

    def ring(self):
        """A ring name of its own."""
        name = f"qevgst{os.getpid()}x{next(_counter)}"
        self.addCleanup(remove_ring, name)
        return name

    def start(self, *command, logs=(), environment=None, stdin=None):
        process = Process([str(word) for word in command], logs, environment or {}, stdin)
        self._processes.append(process)
        return process

    def launch(self, *parts, runner=(), fed=False, environment=None):
        """Starts gst-launch-1.0 with the pipeline of `parts`, texts and logs; `runner` are the
        words of a command that runs it, and a `fed` one takes its standard input from the test."""
        return self.start(
            *runner,
            *("gst-launch-1.0", "-m"),
            *shlex.split(" ".join(map(str, parts))),
            logs=[part for part in parts if isinstance(part, BufferLog)],
            environment=environment,
            stdin=subprocess.PIPE if fed else None,
        )

    def run_to_the_end(self, *parts):
        process = self.launch(*parts)
        self.assert_ends_well(process)
        return process

    def assert_ends_well(self, *processes):
        for process in processes:
            status = process.wait()
            self.assertEqual(status, 0, process.output())
            self.assertNotIn("ERROR", process.output())

    def assert_same_buffers(self, actual, expected):
        """In order, every field but whether memory may be written; a ring gives a capture time to
        those that came without."""
        self.assertEqual(len(actual), len(expected))
        for number, (one, other) in enumerate(zip(actual, expected)):
            if other.capture_time is None:
                self.assertIsNotNone(one.capture_time)
                one = one._replace(capture_time=None)
            self.assertEqual(
                one._replace(access=None), other._replace(access=None), f"buffer {number}"
            )


def remove_ring(name):
    """All that stands in the file system for the ring `name`, which the elements leave there."""
    shm = pathlib.Path("/dev/shm")
    for path in [
        shm / f"{name}.shm",
        shm / f"{name}.ctl.shm",
        *shm.glob(f"sem.{name}.node*"),
        *shm.glob(f"{name}.caps*"),
        *pathlib.Path("/tmp").glob(f"{name}.caps*"),
    ]:
        path.unlink(missing_ok=True)
