"""The example does what its text says: test_example.py PROGRAM"""

import subprocess
import sys
import unittest


class Example(unittest.TestCase):
    def test_all_packets_go_through_the_three_processes_in_order(self):
        run = subprocess.run([program], text=True, capture_output=True, check=False)
        total = sum(sum(f"frame {number}".encode()) for number in range(10_000))
        self.assertEqual(
            sorted(run.stdout.splitlines()),
            [
                f"node 1: the bytes add up to {total}",
                "node 2: 10000 packets, in order",
            ],
        )
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.returncode, 0)


if __name__ == "__main__":
    program = sys.argv[1]
    unittest.main(argv=sys.argv[:1])
