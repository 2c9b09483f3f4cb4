"""What each shared library offers to the loader and asks of it: exported symbols with their
version, its own name, and the libraries that it needs.

The exported symbols are kept in exported/<library>.txt. A change there is a change of what clients
may rely on."""

import pathlib
import subprocess
import sys
import unittest

from elf_image import ElfImage

SYSTEM = {"libstdc++", "libgcc_s", "libm", "libc"}

EXPECTED = {
    "SharedMemory": {
        "soname": "libqev_SharedMemory.so.1",
        "version": "QEV_SHAREDMEMORY_1",
        "needed": SYSTEM | {"libqev_FileDescriptor", "libqev_Logger", "libqev_MappedFile"},
    },
    # No symbol version on the companions, so that another library of this name can take its place.
    "Logger": {
        "soname": "libqev_Logger.so.1",
        "version": "",
        "needed": SYSTEM | {"libspdlog", "libfmt"},
    },
    "MappedFile": {
        "soname": "libqev_MappedFile.so.1",
        "version": "",
        "needed": SYSTEM | {"libqev_FileDescriptor"},
    },
    "FileDescriptor": {
        "soname": "libqev_FileDescriptor.so.1",
        "version": "",
        "needed": SYSTEM,
    },
}

library = ""
path = ""


def exported_symbols():
    """(name, version) of every symbol that the library defines for others. The several forms of
    one constructor or destructor have one name."""
    lines = subprocess.run(
        ["nm", "-DC", "--defined-only", path], text=True, check=True, stdout=subprocess.PIPE
    ).stdout.splitlines()
    symbols = {tuple(line.split(" ", 2)[1:]) for line in lines}
    named = {text.partition("@@")[::2] for kind, text in symbols if kind != "A"}
    return sorted(named)


class DynamicInterface(unittest.TestCase):
    maxDiff = None

    def test_exactly_the_listed_symbols_are_exported(self):
        listed = pathlib.Path(__file__).parent / "exported" / f"{library}.txt"
        names = [name for name, _ in exported_symbols()]
        self.assertEqual(names, listed.read_text().splitlines())

    def test_every_symbol_carries_the_version_of_the_library(self):
        versions = {version for _, version in exported_symbols()}
        self.assertEqual(versions, {EXPECTED[library]["version"]})

    def test_the_library_names_itself(self):
        self.assertEqual(ElfImage(path).dynamic("SONAME"), [EXPECTED[library]["soname"]])

    def test_nothing_is_needed_beyond_the_known_libraries(self):
        needed = {name.partition(".so")[0] for name in ElfImage(path).dynamic("NEEDED")}
        self.assertLessEqual(needed, EXPECTED[library]["needed"])
        self.assertIn("libstdc++", needed)


if __name__ == "__main__":
    library, path = sys.argv[1:3]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
