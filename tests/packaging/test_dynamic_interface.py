"""What each shared library offers to the loader and asks of it: exported symbols with their
version, its own name, and the libraries that it needs.

The exported symbols are kept in exported/<library>.txt. A change there is a change of what clients
may rely on."""

import pathlib
import re
import subprocess
import sys
import unittest

from elf_image import ElfImage, demangle

SYSTEM = {"libstdc++", "libgcc_s", "libm", "libc"}

# Bytes of a std::unordered_map.
REGISTRY = 56
VIEW = "std::basic_string_view<char, std::char_traits<char> >"

# What every mangled name of something in namespace qel begins with: the thing itself, or the virtual
# table or type information of it.
OURS = re.compile(r"_Z(T[VIS])?NK?3qel")

EXPECTED = {
    "SharedMemory": {
        "soname": "libqev_SharedMemory.so.1",
        "version": "QEV_SHAREDMEMORY_1",
        "needed": SYSTEM | {"libqev_FileDescriptor", "libqev_Logger", "libqev_MappedFile"},
        "objects": {
            "qel::IF<qel::SharedMemoryBlockReaderIF>::ifConstructors<>": REGISTRY,
            f"qel::IF<qel::SharedMemoryBlockReaderIF>::ifConstructors<{VIEW} >": REGISTRY,
            "qel::IF<qel::SharedMemoryBlockWriterIF>::ifConstructors<>": REGISTRY,
            f"qel::IF<qel::SharedMemoryBlockWriterIF>::ifConstructors<{VIEW}, unsigned long>":
                REGISTRY,
        },
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

    def test_nothing_is_exported_but_what_is_ours(self):
        # A template of the standard library made for one of our types would take the place of the
        # client's own.
        for name, _, _ in ElfImage(path).exported():
            with self.subTest(name):
                self.assertRegex(name, OURS)

    def test_the_only_data_to_be_shared_are_the_registries(self):
        image = ElfImage(path)
        objects = {name: size for name, kind, size in image.exported() if kind == "OBJECT"}
        data = {
            name: size
            for name, size in zip(demangle(objects), objects.values())
            if not name.startswith(("vtable for", "typeinfo for", "typeinfo name for"))
        }
        expected = EXPECTED[library].get("objects", {})
        self.assertEqual(data.keys(), expected.keys())
        if not image.is_made_for_the_address_sanitizer():  # which makes all objects bigger
            self.assertEqual(data, expected)

    def test_the_library_names_itself(self):
        self.assertEqual(ElfImage(path).dynamic("SONAME"), [EXPECTED[library]["soname"]])

    def test_nothing_is_needed_beyond_the_known_libraries(self):
        needed = {name.partition(".so")[0] for name in ElfImage(path).dynamic("NEEDED")}
        self.assertLessEqual(needed, EXPECTED[library]["needed"])
        self.assertIn("libstdc++", needed)

    def test_every_library_of_ours_that_stands_beside_it_is_needed(self):
        needed = {name.partition(".so")[0] for name in ElfImage(path).dynamic("NEEDED")}
        beside = EXPECTED[library]["needed"] - SYSTEM - {"libspdlog", "libfmt"}
        self.assertLessEqual(beside, needed)


if __name__ == "__main__":
    library, path = sys.argv[1:3]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
