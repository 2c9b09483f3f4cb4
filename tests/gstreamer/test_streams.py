"""Media of several kinds goes through three processes, and every buffer comes out as it went in:
test_streams.py [CASE...]"""

import sys

from launching import BufferLog, LaunchTest, require_elements, run_tests
from recording import h264

LOOKS = "fakesink sync=false enable-last-sample=false"


class Streams(LaunchTest):
    def send(self, stream, size):
        """What went in, what the stage saw and what came out: three logs."""
        ring = self.ring()
        logs = [BufferLog() for _ in range(3)]
        stage = self.launch(f"qevsrc name={ring} node=1 !", logs[1], f"! {LOOKS}")
        sink = self.launch(f"qevsrc name={ring} node=2 sink=true !", logs[2], f"! {LOOKS}")
        writer = self.launch(stream, "!", logs[0], f"! qevsink name={ring} size={size}")
        self.assert_ends_well(writer, stage, sink)
        for log in logs:
            log.wait_for_end()
        for process in stage, sink:
            self.assertEqual(process.stats()[ring]["packets"], len(logs[0].buffers()))
            self.assertEqual(process.stats()[ring]["copies"], 0)
        return logs

    def assert_goes_through(self, stream, buffers, size=4 << 20):
        sent, seen, arrived = self.send(stream, size)
        self.assertEqual(len(sent.buffers()), buffers)
        for log in seen, arrived:
            self.assert_same_buffers(log.buffers(), sent.buffers())
            self.assert_same_buffers(log.buffers(), seen.buffers())
            self.assertEqual(log.caps(), sent.caps())
            self.assertEqual(log.of("tag"), sent.of("tag"))
            self.assertEqual(log.eos(), 1)
            self.assertEqual({one.access for one in log.buffers()}, {"readonly"})
        return sent.buffers()


class EncodedVideo(Streams):
    def test_h264_with_b_frames(self):
        sent = self.assert_goes_through(h264(300), buffers=300)
        # The stream is what it is meant to be.
        self.assertNotEqual([one.pts for one in sent], sorted(one.pts for one in sent))
        self.assertNotIn(None, [one.dts for one in sent])

    def test_a_ring_with_room_for_few_frames_holds_the_writer_up_and_loses_nothing(self):
        self.assert_goes_through(h264(300), buffers=300, size=16384)


class EncodedAudio(Streams):
    def test_aac(self):
        self.assert_goes_through(
            "audiotestsrc num-buffers=400 ! audio/x-raw,rate=48000,channels=2"
            " ! avenc_aac ! aacparse",
            buffers=401,
        )

    def test_opus(self):
        self.assert_goes_through(
            "audiotestsrc num-buffers=200 samplesperbuffer=960 ! audio/x-raw,rate=48000"
            " ! opusenc ! opusparse",
            buffers=201,
        )


class RawVideo(Streams):
    def test_frames_of_1080p(self):
        self.assert_goes_through(
            "videotestsrc num-buffers=60 pattern=ball"
            " ! video/x-raw,format=I420,width=1920,height=1080,framerate=60/1",
            buffers=60,
            size=32 << 20,
        )


if __name__ == "__main__":
    require_elements(*"x264enc h264parse avenc_aac aacparse opusenc opusparse".split())
    run_tests(sys.argv[1:])
