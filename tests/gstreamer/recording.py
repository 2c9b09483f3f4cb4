"""Streams that a test feeds to a pipeline as it likes: recorded once with all that belongs to their
buffers, then cut into pieces."""

import collections
import pathlib
import shlex
import struct
import subprocess
import tempfile

# Caps and events, then buffers, as gdppay writes them.
_HEADER = struct.Struct(">2x2xHI52x")
_BUFFER = 1

# The pipelines end in what stands before a qevsink. Their key frames are at every 30th buffer.
H264 = (
    "videotestsrc num-buffers={count} pattern=ball"
    " ! video/x-raw,format=I420,width={width},height={height},framerate=60/1"
    " ! x264enc bframes=2 b-adapt=false key-int-max=30 option-string=scenecut=0"
    " ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au"
)
KEY_INTERVAL = 30


def h264(count, width=320, height=240):
    return H264.format(count=count, width=width, height=height)


class Recording:
    """What `pipeline` makes, to be fed to "fdsrc ! gdpdepay"."""

    def __init__(self, pipeline):
        with tempfile.TemporaryDirectory(prefix="qev_gst_") as directory:
            path = pathlib.Path(directory) / "recording"
            subprocess.run(
                ["gst-launch-1.0", "-q"]
                + shlex.split(f"{pipeline} ! gdppay ! filesink location={path}"),
                check=True,
            )
            data = path.read_bytes()
        # One piece for each buffer, with what goes before it; the last piece ends the stream.
        self._pieces = collections.deque([b""])
        start = 0
        while start < len(data):
            kind, length = _HEADER.unpack_from(data, start)
            end = start + _HEADER.size + length
            self._pieces[-1] += data[start:end]
            if kind == _BUFFER:
                self._pieces.append(b"")
            start = end
        self.count = len(self._pieces) - 1

    def take(self, count):
        """The next `count` buffers."""
        return b"".join(self._pieces.popleft() for _ in range(count))

    def rest(self):
        """All that is left, and the end of the stream."""
        return self.take(len(self._pieces))


FED = "fdsrc ! gdpdepay !"
