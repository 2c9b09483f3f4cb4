"""Every public header compiles on its own, without a warning, in one language version under one
compiler: test_headers_alone.py COMPILER STANDARD INCLUDE_DIRECTORY..."""

import pathlib
import shutil
import subprocess
import sys
import unittest

from skipping import skip

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wshadow", "-Werror"]


class HeadersAlone(unittest.TestCase):
    def test_every_header_compiles_alone(self):
        headers = sorted(header for path in directories for header in path.glob("*.h"))
        self.assertTrue(headers)
        includes = [f"-I{path}" for path in directories]
        for header in headers:
            with self.subTest(header.name):
                # Twice, because a header may be included twice.
                source = f'#include "{header.name}"\n' * 2
                run = subprocess.run(
                    [compiler, f"-std={standard}", "-fsyntax-only", "-x", "c++", *WARNINGS,
                     *includes, "-"],
                    input=source, text=True, stderr=subprocess.PIPE, check=False,
                )
                self.assertEqual(run.returncode, 0, run.stderr)


if __name__ == "__main__":
    compiler, standard = sys.argv[1:3]
    directories = [pathlib.Path(path) for path in sys.argv[3:]]
    if shutil.which(compiler) is None:
        skip(f"there is no {compiler}")
    unittest.main(argv=sys.argv[:1])
