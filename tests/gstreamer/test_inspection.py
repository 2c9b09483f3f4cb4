"""gst-inspect-1.0 tells all that a user has to know: test_inspection.py [CASE...]"""

import re
import subprocess
import sys

from launching import BufferLog, LaunchTest, require_elements, run_tests

# name: (kind, default, settable)
COMMON = {"wakeup": ("Enum", '0, "semaphore"', True), "ring": ("String", "null", True)}
SINK = {
    **COMMON,
    "size": ("Unsigned Integer64", "67108864", True),
    "max-frames": ("Unsigned Integer", "0", True),
    "node": ("Unsigned Integer", "0", True),
    "wait-for-space": ("Boolean", "true", True),
    "critical-keyframes": ("Boolean", "false", True),
    "dropped": ("Unsigned Integer64", "0", False),
    "stats": ("Boxed pointer", None, False),
    "sync": ("Boolean", "false", True),
    "enable-last-sample": ("Boolean", "false", True),
}
SOURCE = {
    **COMMON,
    "size": ("Unsigned Integer64", "0", True),
    "node": ("Unsigned Integer", "1", True),
    "sink": ("Boolean", "false", True),
    "writable": ("Boolean", "false", True),
    "max-outstanding": ("Integer64", "-1", True),
    "caps": ("Caps", None, True),
    "start-at-key-frame": ("Boolean", "true", True),
    "align-time": ("Boolean", "true", True),
    "ignore-eos": ("Boolean", "false", True),
    "copies": ("Unsigned Integer64", "0", False),
    "stats": ("Boxed pointer", None, False),
}


def inspect(element):
    run = subprocess.run(
        ["gst-inspect-1.0", "--no-colors", element], text=True, check=True, capture_output=True
    )
    return run.stdout


def properties(text):
    """(description, flags, type and default) by name."""
    found = {}
    section = text.split("Element Properties:\n", 1)[1]
    for entry in re.split(r"\n(?=  \S)", "\n" + section):
        head, *rest = entry.split("\n")
        match = re.fullmatch(r"  (\S+) *: (.*)", head)
        flags = next((line for line in rest if "flags:" in line), None)
        if match and flags:
            kind = rest[rest.index(flags) + 1].strip()
            found[match.group(1)] = (match.group(2), flags, kind)
    return found


class Inspection(LaunchTest):
    def assert_tells(self, element, expected):
        found = properties(inspect(element))
        for name, (kind, default, settable) in expected.items():
            with self.subTest(element=element, property=name):
                description, flags, actual = found[name]
                self.assertGreater(len(description.split()), 2)
                self.assertEqual("writable" in flags, settable)
                self.assertIn("readable", flags)
                self.assertTrue(actual.startswith(kind), actual)
                if default is not None:
                    self.assertEqual(actual.split("Default: ")[1].strip(), default)
        return found

    def test_every_property_of_the_sink_has_a_description_and_the_default(self):
        self.assert_tells("qevsink", SINK)

    def test_every_property_of_the_source_has_a_description_and_the_default(self):
        self.assert_tells("qevsrc", SOURCE)

    def test_no_property_is_left_without_a_row_here(self):
        for element, expected, base in (
            ("qevsink", SINK, "fakesink"),
            ("qevsrc", SOURCE, "fakesrc"),
        ):
            inherited = set(properties(inspect(base)))
            own = set(properties(inspect(element)))
            self.assertEqual(own - inherited - set(expected), set(), element)

    def test_both_are_described(self):
        for element, kind in (("qevsink", "Sink"), ("qevsrc", "Source")):
            details = inspect(element).split("Plugin Details:")[0]
            self.assertRegex(details, r"Long-name +\S")
            self.assertRegex(details, rf"Klass +{kind}")
            self.assertRegex(details, r"Description +\S+( \S+){3}")

    def test_its_examples_run(self):
        examples = {
            element: re.findall(r"Example\S* +gst-launch-1.0 (.*)", inspect(element))
            for element in ("qevsink", "qevsrc")
        }
        self.assertEqual({element: len(found) for element, found in examples.items()},
                         {"qevsink": 1, "qevsrc": 2})  # fmt: skip
        for example in examples["qevsrc"]:
            with self.subTest(example=example):
                ring, log = self.ring(), BufferLog()
                writer = self.launch(
                    examples["qevsink"][0].replace("name=camera", f"name={ring}")
                )
                # Nothing is shown where there is no screen.
                head, tail = re.split(
                    r"(?:autovideosink|fakesink)",
                    example.replace("name=camera", f"name={ring}"),
                )
                reader = self.launch(head, log, "! fakesink", tail)
                log.wait_for_buffers(3)
                for process in reader, writer:
                    process.interrupt()
                    process.wait()
                    self.assertNotIn("ERROR", process.output())


if __name__ == "__main__":
    require_elements()
    run_tests(sys.argv[1:])
