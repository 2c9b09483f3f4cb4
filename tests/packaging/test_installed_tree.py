"""A project of somebody else is built against the installed tree and run: test_installed_tree.py
WORK_DIRECTORY COMPILER flags=FLAGS, where FLAGS are those without which nothing that this build has
made can be linked, as of sanitizers."""

import json
import os
import pathlib
import shlex
import subprocess
import sys
import unittest

CLIENT = pathlib.Path(__file__).parent / "client"


def output_of(*command, **more):
    run = subprocess.run(command, text=True, stdout=subprocess.PIPE, check=False, **more)
    if run.returncode != 0:
        raise AssertionError(f"{command[0]} failed with {run.returncode}:\n{run.stdout}")
    return run.stdout


def warnings_in(flags):
    return [flag for flag in flags if flag.startswith("-W") and not flag.startswith("-Wl,")]


class InstalledTree(unittest.TestCase):
    def setUp(self):
        self.assertTrue(tree.is_dir(), "the tree has not been installed")

    def test_find_package_gives_all_that_a_client_needs(self):
        build = work / "find_package"
        output_of(
            "cmake", "-S", CLIENT, "-B", build, "-G", "Ninja", "--fresh",
            f"-DCMAKE_PREFIX_PATH={tree}", f"-DCMAKE_CXX_COMPILER={compiler}",
            f"-DCMAKE_CXX_FLAGS={flags}",
            stderr=subprocess.STDOUT,
        )
        output_of("cmake", "--build", build)
        self.assertEqual(output_of(build / "ring_client"), "across\n")
        self.assertEqual(output_of(build / "kit_client"), "across\n")

        for unit in json.loads((build / "compile_commands.json").read_text()):
            self.assertEqual(warnings_in(shlex.split(unit["command"])), [])

    def test_pkg_config_gives_all_that_a_client_needs(self):
        directory = next(tree.rglob("pkgconfig"))
        environment = dict(os.environ, PKG_CONFIG_PATH=str(directory))
        for package, client in (
            ("qev_SharedMemory", "ring_client"),
            ("qev_PipelineKit", "kit_client"),
        ):
            with self.subTest(package):
                # The tree is in no place that the loader knows.
                answer = output_of("pkg-config", "--cflags", "--libs", package, env=environment)
                libdir = output_of("pkg-config", "--variable=libdir", package, env=environment)
                given = shlex.split(answer)
                program = work / f"{client}_by_pkg_config"
                output_of(
                    compiler, "-std=c++17", *shlex.split(flags), CLIENT / f"{client}.cpp", *given,
                    f"-Wl,-rpath,{libdir.strip()}", "-o", program,
                )
                self.assertEqual(output_of(program), "across\n")
                self.assertEqual(warnings_in(given), [])

    def test_no_file_of_the_tree_names_the_place_of_the_build(self):
        for file in tree.rglob("*"):
            if file.suffix in (".cmake", ".pc", ".h"):
                with self.subTest(file.name):
                    self.assertNotIn(str(work), file.read_text())


if __name__ == "__main__":
    work, compiler = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    flags = sys.argv[3].removeprefix("flags=")
    tree = work / "moved"
    unittest.main(argv=sys.argv[:1])
