"""GStreamer's leak tracer and valgrind watch a writer, a stage and a sink:
test_leaks.py [CASE...]"""

import shutil
import sys
import xml.etree.ElementTree

from launching import BufferLog, LaunchTest, require_elements, run_tests
from recording import h264

LOOKS = "fakesink sync=false enable-last-sample=false"
# What is ours, by object and by source file.
OURS = ("libgstqev", "libqev_")


def frames_of(error):
    """What each frame of the stack is called and where it lies, the innermost first."""
    stack = error.find("stack")
    tags = ("fn", "file", "obj")
    return [" ".join(frame.findtext(tag, "") for tag in tags) for frame in stack.iter("frame")]


def is_ours(frames):
    """Whether code of ours is in the stack, other than by an exception that it throws:
    GStreamer brings libunwind for these, whose ways with the stack valgrind takes for errors."""
    for frame in frames:
        if "libunwind" in frame:
            return False
        if any(name in frame for name in OURS):
            return True
    return False


def describe(error):
    return "\n".join([error.findtext("kind"), *frames_of(error)])


class Leaks(LaunchTest):
    def chain(self, stream, environment, runner=()):
        """The three processes, at their end."""
        ring = self.ring()
        processes = [
            self.launch(words, environment=environment, runner=runner)
            for words in (
                f"qevsrc name={ring} node=1 writable=true ! identity ! {LOOKS}",
                f"qevsrc name={ring} node=2 sink=true ! queue ! {LOOKS}",
                f"{stream} ! qevsink name={ring} size=4000000",
            )
        ]
        self.assert_ends_well(*processes)
        return processes


class Tracer(Leaks):
    ENVIRONMENT = {"GST_TRACERS": "leaks", "GST_DEBUG": "GST_TRACER:7", "GST_DEBUG_NO_COLOR": "1"}

    def assert_all_objects_gone(self, processes):
        for process in processes:
            self.assertIn("object-alive.class", process.output())  # the tracer is there
            self.assertNotRegex(process.output(), r"object-alive, type-name=\(string\)\w")

    def test_no_object_outlives_its_pipeline(self):
        self.assert_all_objects_gone(self.chain(h264(60), self.ENVIRONMENT))

    def test_no_object_outlives_a_pipeline_that_is_interrupted(self):
        ring, log = self.ring(), BufferLog()
        reader = self.launch(
            f"qevsrc name={ring} node=1 ! queue !", log, "! fakesink", environment=self.ENVIRONMENT
        )
        # Nobody takes the packets from the stage, so the writer comes to wait.
        writer = self.launch(
            "videotestsrc ! video/x-raw,width=320,height=240 !"
            f" qevsink name={ring} size=8000000",
            environment=self.ENVIRONMENT,
        )
        log.wait_for_buffers(3)
        for process in reader, writer:
            process.interrupt()
            process.wait()
        self.assert_all_objects_gone((reader, writer))


class Valgrind(Leaks):
    def setUp(self):
        super().setUp()
        if shutil.which("valgrind") is None:
            self.skipTest("there is no valgrind")

    def test_no_error_and_no_lost_memory_has_code_of_ours_in_its_stack(self):
        report = self.directory / "valgrind.%p"
        runner = (
            *("valgrind", "--quiet", "--xml=yes", f"--xml-file={report}", "--trace-children=no"),
            *("--leak-check=full", "--show-leak-kinds=definite", "--num-callers=40"),
            "--suppressions=/usr/share/glib-2.0/valgrind/glib.supp",
        )
        environment = {"G_SLICE": "always-malloc", "G_DEBUG": "gc-friendly"}
        stream = (
            "fakesrc num-buffers=50 sizetype=fixed sizemax=1000 filltype=random"
            " ! application/x-opaque"
        )
        self.chain(stream, environment, runner)
        reports = sorted(self.directory.glob("valgrind.*"))
        self.assertEqual(len(reports), 3)
        for path in reports:
            root = xml.etree.ElementTree.parse(path).getroot()
            for error in root.iter("error"):
                self.assertFalse(is_ours(frames_of(error)), describe(error))


if __name__ == "__main__":
    require_elements("x264enc")
    run_tests(sys.argv[1:])
