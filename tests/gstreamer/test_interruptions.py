"""Processes come late, are killed and come back: test_interruptions.py [CASE...]

The writers are fed by the test, which so decides how far they have come."""

import sys
import threading

from launching import DELTA_UNIT, BufferLog, LaunchTest, require_elements, run_tests
from recording import FED, KEY_INTERVAL, Recording, h264

LOOKS = "fakesink sync=false enable-last-sample=false"


def is_key(buffer):
    return not buffer.flags & DELTA_UNIT


class Interruptions(LaunchTest):
    def setUp(self):
        super().setUp()
        self.name = self.ring()

    def writer(self, options="size=4000000"):
        """A process that is fed and the log of what it writes."""
        log = BufferLog()
        return self.launch(FED, log, f"! qevsink name={self.name} {options}", fed=True), log

    def reader(self, options="sink=true"):
        log = BufferLog()
        return self.launch(f"qevsrc name={self.name} {options} !", log, f"! {LOOKS}"), log

    def feed_all_of(self, writer, data):
        """Feeds as the writer takes it, while the test goes on."""

        def feed():
            try:
                writer.feed(data)
                writer.end_of_feed()
            except BrokenPipeError:
                pass  # the writer's end is the test's matter

        threading.Thread(target=feed, daemon=True).start()


class Readers(Interruptions):
    def test_one_that_was_killed_continues_at_a_key_frame(self):
        recording = Recording(h264(300))
        writer, sent = self.writer()
        first, before = self.reader()
        writer.feed(recording.take(45))
        before.wait_for_buffers(45)
        first.kill()
        before.wait_for_end()
        writer.feed(recording.take(100))
        sent.wait_for_buffers(145)  # goes on while nobody reads

        second, after = self.reader()
        after.wait_for_buffers(145 - 2 * KEY_INTERVAL)
        self.feed_all_of(writer, recording.rest())
        self.assert_ends_well(writer, second)
        sent.wait_for_end()
        after.wait_for_end()
        self.assert_same_buffers(before.buffers(), sent.buffers()[:45])
        self.assertTrue(is_key(after.buffers()[0]))
        self.assert_same_but_first_discont(after.buffers(), sent.buffers()[2 * KEY_INTERVAL :])
        self.assertEqual(after.caps(), sent.caps()[-1:])
        self.assertEqual(after.eos(), 1)

    def assert_same_but_first_discont(self, actual, expected):
        """A reader that begins in the middle may say so in its first buffer."""
        first = [one[0]._replace(flags=one[0].flags & DELTA_UNIT) for one in (actual, expected)]
        self.assert_same_buffers([first[0]] + actual[1:], [first[1]] + expected[1:])

    def test_a_stage_that_was_killed_leaves_no_gap_for_those_after_it(self):
        recording = Recording(h264(300))
        writer, sent = self.writer()
        first, before = self.reader("node=1")
        sink, arrived = self.reader("node=2 sink=true")
        writer.feed(recording.take(45))
        before.wait_for_buffers(45)
        first.kill()
        writer.feed(recording.take(100))
        sent.wait_for_buffers(145)

        second, _ = self.reader("node=1")
        self.feed_all_of(writer, recording.rest())
        self.assert_ends_well(writer, second, sink)
        sent.wait_for_end()
        arrived.wait_for_end()
        self.assert_same_buffers(arrived.buffers(), sent.buffers())

    def test_a_stage_that_is_killed_at_any_moment_leaves_no_gap(self):
        recording = Recording(h264(300))
        writer, sent = self.writer()
        sink, arrived = self.reader("node=2 sink=true")
        for _ in range(8):
            stage, seen = self.reader("node=1")
            writer.feed(recording.take(KEY_INTERVAL))
            seen.wait_for_buffers(1)
            stage.kill()  # while it takes the others
        stage, seen = self.reader("node=1")
        writer.feed(recording.take(KEY_INTERVAL))
        seen.wait_for_buffers(1)
        self.feed_all_of(writer, recording.rest())
        self.assert_ends_well(writer, stage, sink)
        sent.wait_for_end()
        arrived.wait_for_end()
        self.assert_same_buffers(arrived.buffers(), sent.buffers())

    def test_a_sink_that_is_killed_at_any_moment_keeps_nothing_from_the_next(self):
        recording = Recording(h264(300))
        writer, sent = self.writer()
        seen = []
        for _ in range(8):
            sink, some = self.reader()
            writer.feed(recording.take(KEY_INTERVAL))
            some.wait_for_buffers(1)
            sink.kill()
            seen.append(some)
        sink, last = self.reader()
        writer.feed(recording.take(KEY_INTERVAL))
        last.wait_for_buffers(1)
        self.feed_all_of(writer, recording.rest())
        self.assert_ends_well(writer, sink)
        for log in sent, last, *seen:
            log.wait_for_end()
        packets = [one.md5 for one in sent.buffers()]
        end = 0
        for log in *seen, last:
            begin = packets.index(log.buffers()[0].md5)
            count = len(log.buffers())
            self.assertTrue(is_key(log.buffers()[0]))
            self.assertEqual(
                [one.md5 for one in log.buffers()], packets[begin : begin + count]
            )
            # At most what the one before it had in its hands comes again.
            self.assertGreaterEqual(begin, end - KEY_INTERVAL)
            end = begin + count
        self.assertEqual(end, 300)

    def test_one_that_starts_late_finds_caps_and_all_that_waits(self):
        recording = Recording(h264(120))
        writer, sent = self.writer()
        writer.feed(recording.take(100))
        sent.wait_for_buffers(100)
        reader, arrived = self.reader()
        arrived.wait_for_buffers(100)
        writer.feed(recording.rest())
        writer.end_of_feed()
        self.assert_ends_well(writer, reader)
        sent.wait_for_end()
        arrived.wait_for_end()
        self.assert_same_buffers(arrived.buffers(), sent.buffers())
        self.assertEqual(arrived.caps(), sent.caps())

    def test_one_that_starts_when_the_writer_is_gone_finds_all_the_same(self):
        writer, sent = self.writer()
        writer.feed(Recording(h264(60)).rest())
        writer.end_of_feed()
        self.assert_ends_well(writer)
        reader, arrived = self.reader()
        self.assert_ends_well(reader)
        sent.wait_for_end()
        arrived.wait_for_end()
        self.assertEqual(len(sent.buffers()), 60)
        self.assert_same_buffers(arrived.buffers(), sent.buffers())
        self.assertEqual((arrived.caps(), arrived.eos()), (sent.caps(), 1))

    def test_one_that_starts_late_lets_a_waiting_writer_go_on(self):
        recording = Recording(h264(300))
        writer, sent = self.writer("size=16384")
        self.feed_all_of(writer, recording.rest())
        sent.wait_for_buffers(10)
        reader, arrived = self.reader()
        self.assert_ends_well(writer, reader)
        sent.wait_for_end()
        arrived.wait_for_end()
        self.assertEqual(len(sent.buffers()), 300)
        self.assert_same_buffers(arrived.buffers(), sent.buffers())

    def test_one_that_starts_before_the_writer_waits_for_it(self):
        reader, arrived = self.reader()
        reader.wait_for_output("Setting pipeline to PLAYING")
        writer, sent = self.writer()
        writer.feed(Recording(h264(60)).rest())
        writer.end_of_feed()
        self.assert_ends_well(writer, reader)
        sent.wait_for_end()
        arrived.wait_for_end()
        self.assertEqual(len(sent.buffers()), 60)
        self.assert_same_buffers(arrived.buffers(), sent.buffers())

    def test_one_that_waits_for_a_writer_can_be_interrupted(self):
        reader, _ = self.reader()
        reader.wait_for_output("Setting pipeline to PLAYING")
        reader.interrupt()
        reader.wait()
        self.assertNotIn("ERROR", reader.output())

    def test_a_second_one_for_the_same_node_is_refused(self):
        writer, _ = self.writer()
        first, arrived = self.reader()
        recording = Recording(h264(60))
        writer.feed(recording.take(30))
        arrived.wait_for_buffers(30)
        second, nothing = self.reader()
        self.assertNotEqual(second.wait(), 0)
        self.assertIn("ERROR", second.output())
        nothing.wait_for_end()
        self.assertEqual(nothing.buffers(), [])
        writer.feed(recording.rest())
        writer.end_of_feed()
        self.assert_ends_well(writer, first)
        arrived.wait_for_end()
        self.assertEqual(len(arrived.buffers()), 60)


class Writers(Interruptions):
    def test_one_that_was_killed_comes_back_with_other_caps(self):
        reader, arrived = self.reader()
        killed, before = self.writer()
        killed.feed(Recording(h264(60)).take(45))
        arrived.wait_for_buffers(45)
        killed.kill()
        before.wait_for_end()

        writer, after = self.writer()
        writer.feed(Recording(h264(60, width=176, height=144)).rest())
        writer.end_of_feed()
        self.assert_ends_well(writer, reader)
        after.wait_for_end()
        arrived.wait_for_end()
        self.assertEqual(len(after.buffers()), 60)
        self.assert_same_buffers(arrived.buffers(), before.buffers() + after.buffers())
        self.assertEqual(arrived.caps(), before.caps() + after.caps())
        self.assertIn("width=(int)320", arrived.caps()[0])
        self.assertIn("width=(int)176", arrived.caps()[-1])
        self.assertEqual(arrived.eos(), 1)

    def test_ones_that_are_killed_at_any_moment_leave_whole_packets_with_their_caps(self):
        reader, arrived = self.reader()
        logs = {}
        for width in range(160, 320, 32):
            writer, logs[width] = self.writer()
            writer.feed(Recording(h264(60, width=width)).take(50))
            logs[width].wait_for_buffers(1)
            writer.kill()  # while it writes the others
        last, logs[320] = self.writer()
        last.feed(Recording(h264(60)).rest())
        last.end_of_feed()
        self.assert_ends_well(last, reader)
        arrived.wait_for_end()
        expected = []
        for width, log in logs.items():
            log.wait_for_end()
            count = arrived.widths().count(width)
            # The last one that a log tells of may be on this side of the ring or on the other.
            self.assertIn(len(log.buffers()) - count, (0, 1) if width != 320 else (0,))
            expected += log.buffers()[:count]
        self.assertEqual(arrived.widths(), sorted(arrived.widths()))
        self.assert_same_buffers(arrived.buffers(), expected)

    def test_the_next_stream_follows_in_a_reader_that_ignores_the_end_of_one(self):
        reader, arrived = self.reader("sink=true ignore-eos=true")
        logs = []
        for width in 320, 176:
            writer, sent = self.writer()
            writer.feed(Recording(h264(30, width=width)).rest())
            writer.end_of_feed()
            self.assert_ends_well(writer)
            sent.wait_for_end()
            logs.append(sent)
            arrived.wait_for_buffers(30 * len(logs))
        reader.interrupt()
        reader.wait()
        arrived.wait_for_end()
        self.assert_same_buffers(
            arrived.buffers(), logs[0].buffers() + logs[1].buffers()
        )
        self.assertEqual(arrived.caps(), logs[0].caps() + logs[1].caps())

    def test_one_that_does_not_wait_drops_up_to_the_next_key_frame(self):
        recording = Recording(h264(300))
        writer, sent = self.writer("size=32768 wait-for-space=false")
        writer.feed(recording.take(200))
        sent.wait_for_buffers(200)  # although nobody reads
        reader, arrived = self.reader()
        arrived.wait_for_buffers(1)
        writer.feed(recording.rest())
        writer.end_of_feed()
        self.assert_ends_well(writer, reader)
        sent.wait_for_end()
        arrived.wait_for_end()

        packets = [one.md5 for one in sent.buffers()]
        places = [packets.index(one.md5) for one in arrived.buffers()]
        self.assertEqual(places, sorted(set(places)))
        self.assert_same_buffers(arrived.buffers(), [sent.buffers()[place] for place in places])
        for place, before in zip(places[1:], places):
            if place != before + 1:
                self.assertTrue(is_key(sent.buffers()[place]), place)
        stats = writer.stats()[self.name]
        self.assertGreater(stats["dropped"], 0)
        self.assertEqual(stats["dropped"], 300 - len(places))
        self.assertEqual(stats["packets"], len(places))
        self.assertEqual(arrived.eos(), 1)


if __name__ == "__main__":
    require_elements("x264enc", "h264parse", "gdppay", "gdpdepay")
    run_tests(sys.argv[1:])
