"""How a test script tells ctest that it cannot run here."""

import sys


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)
