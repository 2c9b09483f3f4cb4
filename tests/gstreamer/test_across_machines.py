"""A ring's stream goes to a ring of another machine by the commands of docs/across-machines.md:
test_across_machines.py DOCUMENT [CASE...]

The machines are two network namespaces with a cable between them."""

import os
import pathlib
import re
import subprocess
import sys

from launching import DELTA_UNIT, BufferLog, LaunchTest, require_elements, run_tests
from recording import h264

RELAY = pathlib.Path(__file__).with_name("udp_relay.py")
ADDRESS_OF_B = "192.0.2.2"  # in the document, too
ROUTE = {"srt": "7001", "rtp": "5004", "tcp": "7010"}
# Time stamps go in units of this many nanoseconds, rounded.
TICK = 1_000_000_000 / 90_000

PACKETS = 100
OPAQUE = (
    f"fakesrc num-buffers={PACKETS} sizetype=random sizemin=1 sizemax=5000 filltype=random"
    " datarate=150000 format=time ! application/x-opaque,kind=(string)demo"
)


def ip(*words):
    subprocess.run(["ip", *words], check=True, capture_output=True, text=True)


def commands(document):
    """The commands of the document by their name."""
    text = pathlib.Path(document).read_text(encoding="utf-8")
    return dict(re.findall(r"^```sh (\S+)\n(.*?)^```", text, re.DOTALL | re.MULTILINE))


class AcrossMachines(LaunchTest):
    def setUp(self):
        super().setUp()
        self.on_a, self.on_b = f"qev{os.getpid()}a", f"qev{os.getpid()}b"
        try:
            self.join_machines()
        except OSError as error:
            self.skipTest(f"network namespaces cannot be made: {error}")
        except subprocess.CalledProcessError as error:
            # Without the right to, or where the root folder is no mount, as in a chroot.
            self.skipTest(f"network namespaces cannot be made: {error.stderr.strip()}")
        self.ring_on_a, self.ring_on_b = self.ring(), self.ring()
        self.addCleanup(self._end_processes)  # before the namespaces go
        self.sent, self.arrived = BufferLog(), BufferLog()

    def join_machines(self):
        """Makes two network namespaces with a cable between them."""
        for machine in (self.on_a, self.on_b):
            ip("netns", "add", machine)
            self.addCleanup(ip, "netns", "del", machine)
        ip("link", "add", "cable", "netns", self.on_a, "type", "veth",
           "peer", "name", "cable", "netns", self.on_b)  # fmt: skip
        for machine, address in ((self.on_a, "192.0.2.1"), (self.on_b, ADDRESS_OF_B)):
            for words in (("addr", "add", f"{address}/24", "dev", "cable"),
                          ("link", "set", "cable", "up"), ("link", "set", "lo", "up")):  # fmt: skip
                ip("-n", machine, *words)

    def run_command(self, name, machine, ring, to=ADDRESS_OF_B, secret="not for everybody"):
        command = commands(document)[name].replace("name=camera", f"name={ring}")
        command = command.replace(ADDRESS_OF_B, to)
        # A busy machine can be slower than any network, and takes nothing from what is tested.
        command = command.replace("latency=400", "latency=1500")
        command = command.replace("sizemax=376", "sizemax=752")
        command = command.replace("gst-launch-1.0", "exec gst-launch-1.0 -m", 1)
        return self.start(
            "ip", "netns", "exec", machine, "bash", "-c", command, environment={"SECRET": secret}
        )

    def receive(self, way):
        """Starts what B runs."""
        self.receiver = self.run_command(f"{way}-receive", self.on_b, self.ring_on_b)
        self.reader = self.launch(
            f"qevsrc name={self.ring_on_b} sink=true !",
            self.arrived,
            "! fakesink sync=false enable-last-sample=false",
        )
        self.receiver.wait_for_output("Pipeline is PREROLL")  # and has its port

    def send(self, way, to=ADDRESS_OF_B):
        """Starts what A runs, but for the writer."""
        self.sender = self.run_command(f"{way}-send", self.on_a, self.ring_on_a, to)

    def write(self, stream):
        self.writer = self.launch(
            stream, "!", self.sent, f"! qevsink name={self.ring_on_a}"
        )

    def relay(self, port, *loss):
        """Puts a bad network between: loses and delays both ways."""
        relay = self.start(
            *("ip", "netns", "exec", self.on_a, sys.executable, "-B", RELAY),
            *("127.0.0.1", port, ADDRESS_OF_B, port, *loss),
            stdin=subprocess.PIPE,
        )
        relay.wait_for_output("ready")
        return relay

    def assert_lost_some(self, relay):
        relay.end_of_feed()
        lost = int(relay.wait_for_output(r"lost (\d+) of \d+").group(1))
        self.assertEqual(relay.wait(), 0, relay.output())
        self.assertGreater(lost, 0)

    def assert_all_ended(self):
        self.assert_ends_well(self.writer, self.sender, self.receiver, self.reader)
        self.sent.wait_for_end()
        self.arrived.wait_for_end()
        self.assertEqual((self.sent.eos(), self.arrived.eos()), (1, 1))

    def assert_same_contents(self):
        sent, arrived = self.sent.buffers(), self.arrived.buffers()
        self.assertEqual(
            [(one.md5, one.size, one.flags & DELTA_UNIT) for one in arrived],
            [(one.md5, one.size, one.flags & DELTA_UNIT) for one in sent],
        )

    def assert_same_distances(self, what, pairs):
        offsets = [other - one for one, other in pairs]
        self.assertLessEqual(max(offsets) - min(offsets), TICK + 1, what)

    def assert_h264_arrived(self):
        self.assert_same_contents()
        pairs = list(zip(self.sent.buffers(), self.arrived.buffers()))
        self.assertEqual(len(pairs), 120)
        for what in ("pts", "dts"):
            self.assert_same_distances(
                what, [(getattr(one, what), getattr(other, what)) for one, other in pairs]
            )
        for caps in self.sent.caps()[-1], self.arrived.caps()[-1]:
            for part in ("video/x-h264", "width=(int)320", "height=(int)240",
                         "stream-format=(string)byte-stream", "alignment=(string)au"):  # fmt: skip
                self.assertIn(part, caps)


class Srt(AcrossMachines):
    def stream(self, to=ADDRESS_OF_B):
        self.receive("srt")
        self.send("srt", to)
        self.write(h264(120))

    def test_all_access_units_arrive_over_a_network_that_loses_and_delays(self):
        relay = self.relay(ROUTE["srt"], "0.05", "0.02", "10")
        self.stream(to="127.0.0.1")
        self.assert_all_ended()
        self.assert_h264_arrived()
        self.assert_lost_some(relay)

    def test_another_passphrase_is_refused(self):
        self.receive("srt")
        stranger = self.run_command(
            "srt-send", self.on_a, self.ring_on_a, secret="of somebody else"
        )
        self.write(h264(1))
        stranger.wait_for_output("Incorrect passphrase|Connection does not exist")
        self.assertEqual(self.arrived.buffers(), [])


class SrtOverNetem(Srt):
    def test_all_access_units_arrive_over_a_network_that_loses_and_delays(self):
        for machine in (self.on_a, self.on_b):
            qdisc = "tc qdisc add dev cable root netem delay 20ms 5ms loss 3%".split()
            made = subprocess.run(
                ["ip", "netns", "exec", machine, *qdisc],
                check=False,
                capture_output=True,
                text=True,
            )
            if made.returncode != 0:
                self.skipTest(f"the kernel has no netem: {made.stderr.strip()}")
        self.stream()
        self.assert_all_ended()
        self.assert_h264_arrived()

    test_another_passphrase_is_refused = None


class Rtp(AcrossMachines):
    def stream(self, to=ADDRESS_OF_B):
        self.receive("rtp")
        self.send("rtp", to)
        self.sender.wait_for_output("Setting pipeline to PLAYING")
        self.write(OPAQUE)
        self.sent.wait_for_buffers(PACKETS)

    def end(self):
        """RTP does not tell the end, so the receiver is told by hand once the last is here."""
        last = self.sent.buffers()[-1].md5
        self.arrived.wait_for(
            "last packet", lambda: last in (one.md5 for one in self.arrived.buffers())
        )
        self.receiver.interrupt()
        self.assert_all_ended()

    def test_opaque_packets_and_their_caps_arrive_as_they_are(self):
        self.stream()
        self.end()
        self.assert_same_contents()
        self.assertEqual(self.arrived.caps(), ["application/x-opaque, kind=(string)demo"])
        pairs = zip(self.sent.buffers(), self.arrived.buffers())
        self.assert_same_distances("pts", [(one.pts, other.pts) for one, other in pairs])

    def test_what_arrives_in_spite_of_losses_is_whole_and_in_order(self):
        # The first datagrams carry the caps, and the last packet tells the test that all is over.
        relay = self.relay(ROUTE["rtp"], "0.2", "0.02", "10", "60")
        self.stream(to="127.0.0.1")
        self.end()
        self.assert_lost_some(relay)
        sent = [one.md5 for one in self.sent.buffers()]
        places = [sent.index(one.md5) for one in self.arrived.buffers()]
        self.assertEqual(places, sorted(set(places)))
        self.assertLess(len(places), PACKETS)
        self.assertGreater(len(places), PACKETS // 2)


class Tcp(AcrossMachines):
    def test_everything_arrives_as_it_was_sent(self):
        self.receive("tcp")
        self.send("tcp")
        self.write(h264(120))
        self.assert_all_ended()
        marker = 1 << 9
        self.assert_same_buffers(
            [one._replace(flags=one.flags & ~marker) for one in self.arrived.buffers()],
            [one._replace(flags=one.flags & ~marker) for one in self.sent.buffers()],
        )
        self.assertEqual(self.arrived.caps()[-1], self.sent.caps()[-1])


if __name__ == "__main__":
    document = sys.argv[1]
    require_elements(*"srtsink mpegtsmux tsdemux h264parse x264enc rtpgstpay gdppay".split())
    run_tests(sys.argv[2:])
