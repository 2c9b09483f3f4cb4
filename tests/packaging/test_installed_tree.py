"""A project of somebody else is built against the installed tree and run: test_installed_tree.py
WORK_DIRECTORY COMPILER STANDARD flags=FLAGS, where FLAGS are those without which nothing that this
build has made can be linked, as of sanitizers."""

import json
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import unittest

from skipping import skip

CLIENT = pathlib.Path(__file__).parent / "client"

# Each client, and the package that gives it all it needs. A client that has got its word from one
# end of a service to the other writes it.
CLIENTS = {
    "ring_client": "qev_SharedMemory",
    "block_client": "qev_SharedMemory",
    "semaphore_client": "qev_SharedMemory",
    "kit_client": "qev_PipelineKit",
    "file_client": "qev_MappedFile",
    "descriptor_client": "qev_FileDescriptor",
}
WORD = "across\n"


def output_of(*command, **more):
    run = subprocess.run(command, text=True, stdout=subprocess.PIPE, check=False, **more)
    if run.returncode != 0:
        raise AssertionError(f"{command[0]} failed with {run.returncode}:\n{run.stdout}")
    return run.stdout


def pkg_config(*arguments):
    directory = next(tree.rglob("pkgconfig"))
    return output_of("pkg-config", *arguments, env=dict(os.environ, PKG_CONFIG_PATH=str(directory)))


def warnings_in(flags):
    return [flag for flag in flags if flag.startswith("-W") and not flag.startswith("-Wl,")]


class InstalledTree(unittest.TestCase):
    def setUp(self):
        self.assertTrue(tree.is_dir(), "the tree has not been installed")

    def test_find_package_gives_all_that_a_client_needs(self):
        build = work / f"find_package-{variant}"
        # Nobody has to ask for C++17: the libraries do.
        number = standard.removeprefix("c++")
        asked_standard = [] if number == "17" else [f"-DCMAKE_CXX_STANDARD={number}"]
        output_of(
            "cmake", "-S", CLIENT, "-B", build, "-G", "Ninja", "--fresh",
            f"-DCMAKE_PREFIX_PATH={tree}", f"-DCMAKE_CXX_COMPILER={compiler}",
            f"-DCMAKE_CXX_FLAGS={flags}", *asked_standard,
            stderr=subprocess.STDOUT,
        )
        output_of("cmake", "--build", build)
        for client in CLIENTS:
            with self.subTest(client):
                self.assertEqual(output_of(build / client), WORD)

        for unit in json.loads((build / "compile_commands.json").read_text()):
            self.assertEqual(warnings_in(shlex.split(unit["command"])), [])

    def test_pkg_config_gives_all_that_a_client_needs(self):
        for client, package in CLIENTS.items():
            with self.subTest(client):
                given = shlex.split(pkg_config("--cflags", "--libs", package))
                # The tree is in no place that the loader knows.
                libdir = pkg_config("--variable=libdir", package).strip()
                program = work / f"{client}_by_pkg_config-{variant}"
                output_of(
                    compiler, f"-std={standard}", *shlex.split(flags), CLIENT / f"{client}.cpp",
                    *given, f"-Wl,-rpath,{libdir}", "-o", program,
                )
                self.assertEqual(output_of(program), WORD)
                self.assertEqual(warnings_in(given), [])

    def test_no_file_of_the_tree_names_the_place_of_the_build(self):
        for file in tree.rglob("*"):
            if file.suffix in (".cmake", ".pc", ".h"):
                with self.subTest(file.name):
                    self.assertNotIn(str(work), file.read_text())


if __name__ == "__main__":
    work, compiler, standard = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2], sys.argv[3]
    flags = sys.argv[4].removeprefix("flags=")
    if shutil.which(compiler) is None:
        skip(f"there is no {compiler}")
    tree = work / "moved"
    variant = f"{pathlib.Path(compiler).name}-{standard}"
    unittest.main(argv=sys.argv[:1])
