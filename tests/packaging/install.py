"""Installs the build into a fresh tree and moves that tree elsewhere, for the tests of what users
do with it: install.py BUILD_DIRECTORY WORK_DIRECTORY

The work directory then holds "moved", the installed tree. That it is not where it was installed to
shows that it can be put anywhere."""

import pathlib
import shutil
import subprocess
import sys

build, work = (pathlib.Path(argument) for argument in sys.argv[1:3])
shutil.rmtree(work, ignore_errors=True)
subprocess.run(["cmake", "--install", build, "--prefix", work / "installed"], check=True)
(work / "installed").rename(work / "moved")
