"""Another library named libqev_Logger.so.1 takes the place of the one that a client was built with:
test_logger_replacement.py CLIENT DIRECTORY_OF_THE_OTHER_LIBRARY"""

import errno
import os
import subprocess
import sys
import unittest

LINE_OF_ENTRY = (
    "Trouble creating shared memory invalid parameter:"
    " Exception: Problem Creating Shared memory segment\n"
)
TEXT = f"no/such Problem Creating Shared memory segment - {errno.EINVAL}\n"


def run(directory=None):
    environment = dict(os.environ)
    if directory is not None:
        environment["LD_LIBRARY_PATH"] = directory
    return subprocess.run(
        [client], env=environment, text=True, capture_output=True, check=False
    )


class LoggerReplacement(unittest.TestCase):
    def test_a_record_goes_to_standard_error_by_default(self):
        result = run()
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout, LINE_OF_ENTRY)
        self.assertRegex(
            result.stderr,
            r" critical 0x8010 common/lib/SharedMemory/src/SharedBuffer OpenShm:420 " + TEXT,
        )

    def test_the_same_record_goes_to_the_library_in_its_place(self):
        result = run(replacement)
        self.assertEqual(result.returncode, 0)
        self.assertEqual(
            result.stdout,
            "stand-in|common/lib/SharedMemory/src/SharedBuffer|OpenShm|420|2|32784|"
            + TEXT
            + LINE_OF_ENTRY,
        )
        self.assertEqual(result.stderr, "")


if __name__ == "__main__":
    client, replacement = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1])
