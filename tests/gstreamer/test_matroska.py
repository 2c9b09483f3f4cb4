"""Recordings of a stream's ring as Matroska files, and back into a ring:
test_matroska.py QEV [CASE...]"""

import collections
import os
import struct
import subprocess
import sys

from launching import BufferLog, LaunchTest, require_elements, run_tests

QEV = sys.argv.pop(1)
SIZE = 32 << 20

Packet = collections.namedtuple("Packet", "pts key payload")


def recorded(path):
    """The packets of a recording."""
    data = path.read_bytes()
    place = struct.unpack_from("<I", data, 12)[0]
    found = []
    while place < len(data):
        kind, _, _, length, _ = struct.unpack_from("<IIQQQ", data, place)
        place += 32
        if kind == 1:
            _, _, pts, key, _, _ = struct.unpack_from("<QBqBII", data, place)
            found.append(Packet(pts, bool(key), data[place + 26 : place + length]))
        place += length
    return found


def without_first_packet(recording):
    head = struct.unpack_from("<I", recording, 12)[0]
    length = struct.unpack_from("<IIQQQ", recording, head)[3]
    return recording[:head] + recording[head + 32 + length :]


class Matroska(LaunchTest):
    def record(self, ring, path, *more):
        return self.start(
            *(QEV, "record", ring, "--wait-for", "--from-oldest", "--output", path), *more
        )

    def stream(self, encoder, count, *recorders):
        """Runs a chain while it is recorded."""
        ring = self.ring()
        running = [self.record(ring, path, *more) for path, *more in recorders]
        sink = self.launch(f"qevsrc name={ring} sink=true size={SIZE} ! fakesink sync=false")
        source = self.launch(
            # Live: the writer has to be there when the recorder asks it for the caps.
            f"videotestsrc is-live=true num-buffers={count} ! "
            f"video/x-raw,width=160,height=120,framerate=60/1 ! {encoder} ! "
            f"qevsink name={ring} size={SIZE}"
        )
        self.assert_ends_well(source, sink, *running)

    def replayed(self, film):
        """The packets that `film` puts into a ring."""
        ring = self.ring()
        path = self.directory / "replayed.qev"
        recorder = self.record(ring, path)
        consumer = self.start(
            *(QEV, "consume", "--name", ring, "--node", 1, "--output", "/dev/null")
        )
        replay = self.start(QEV, "replay", film, "--name", ring, "--fast")
        self.assert_ends_well(replay, consumer, recorder)
        return recorded(path)

    def check_round_trip(self, encoder):
        raw = self.directory / "a.qev"
        film = self.directory / "a.mkv"
        self.stream(encoder, 40, (raw,), (film, "--format", "matroska"))
        packets = recorded(raw)
        self.assertEqual(len(packets), 40)

        # What a player sees of it.
        log = BufferLog()
        self.run_to_the_end(f"filesrc location={film} ! matroskademux !", log, "! fakesink")
        log.wait_for_end()
        self.assertEqual(
            [(buffer.pts, buffer.size) for buffer in log.buffers()],
            [(packet.pts, len(packet.payload)) for packet in packets],
        )
        self.assertEqual(self.replayed(film), packets)

    def test_video_with_frames_out_of_order_comes_back_bit_for_bit(self):
        self.check_round_trip("x264enc bframes=2 rc-lookahead=2 ! video/x-h264,stream-format=avc")

    def test_pictures_come_back_bit_for_bit(self):
        self.check_round_trip("jpegenc")

    def test_what_comes_ahead_of_the_first_key_frame_is_left_out_and_counted(self):
        raw = self.directory / "a.qev"
        film = self.directory / "a.mkv"
        self.stream(
            "x264enc tune=zerolatency key-int-max=10 ! video/x-h264,stream-format=byte-stream",
            25,
            (raw,),
        )
        raw.write_bytes(without_first_packet(raw.read_bytes()))
        ring = self.ring()
        recorder = self.record(
            *(ring, film, "--format", "matroska"),
            *("--caps", "video/x-h264,stream-format=byte-stream,alignment=au"),
        )
        consumer = self.start(
            *(QEV, "consume", "--name", ring, "--size", SIZE),
            *("--node", 1, "--output", "/dev/null"),
        )
        replay = self.start(QEV, "replay", raw, "--name", ring, "--fast")
        self.assert_ends_well(replay, consumer, recorder)
        recorder.wait_for_output("left out 9 packets ahead of the first key frame")
        self.assertEqual(len(self.replayed(film)), 15)

    def test_ring_of_other_writers_takes_caps(self):
        ring = self.ring()
        film = self.directory / "a.mkv"
        picture = subprocess.run(
            ["gst-launch-1.0", "-q", "videotestsrc", "num-buffers=1", "!", "jpegenc", "!", "fdsink"],
            check=True,
            capture_output=True,
        ).stdout
        source = self.directory / "picture"
        source.write_bytes(picture)
        film.write_bytes(b"an older film")
        for caps, status in (
            ((), 1),
            (("--caps", "nonsense,,="), 1),
            (("--caps", "image/jpeg,width=320,height=240,framerate=30/1"), 0),
        ):
            recorder = self.record(ring, film, "--format", "matroska", *caps)
            producer = self.start(
                *(QEV, "produce", "--name", ring, "--input", source, "--packet", len(picture))
            )
            consumer = self.start(
                *(QEV, "consume", "--name", ring, "--node", 1, "--output", "/dev/null")
            )
            self.assert_ends_well(producer, consumer)
            self.assertEqual(recorder.wait(), status, recorder.output())
            if status:
                recorder.wait_for_output("caps")
                self.assertEqual(film.read_bytes(), b"an older film")
            os.unlink(f"/dev/shm/{ring}.shm")
        self.assertEqual([packet.payload for packet in self.replayed(film)], [picture])


if __name__ == "__main__":
    require_elements("x264enc", "jpegenc", "matroskamux", "matroskademux")
    run_tests(sys.argv[1:])
