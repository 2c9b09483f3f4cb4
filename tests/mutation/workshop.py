"""Builds the tests with a fault in the library, and runs them."""

import json
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import time
from pathlib import Path

LIBRARY = "common/lib/"
SOURCES = ("common/lib/SharedMemory/src", "common/lib/LockFile/include",
           "common/lib/MappedFile/src", "common/lib/FileDescriptor/src",
           "common/lib/FileDescriptor/include")

RING = ["unit_shared_buffer", "unit_shared_buffer_logging", "unit_packet_buffer",
        "unit_shared_mem_lib", "unit_shared_mem_lib_substitute", "segment_layout_test",
        "unit_hot_path", "qev_property_tests"]
BLOCKS = ["blocks", "blocks_unwritable_record", "blocks_uid", "block_layout_test",
          "blocks_between_processes", "blocks_between_threads", "unit_registry"]

# Which programs test a file, the likeliest to fail first. The first pattern that fits decides.
PROGRAMS = [
    (r"/SharedPacketBuffer", ["unit_packet_buffer", "unit_shared_mem_lib_substitute",
                              "unit_shared_mem_lib", "unit_hot_path", "qev_property_tests"]),
    (r"/(PacketModel|SMStatusCode)", ["unit_packet_buffer", "unit_shared_buffer"]),
    (r"/(SharedBuffer|ControlBlock)", RING),
    (r"/(CopyPastCache|HeaderCopy)", ["unit_shared_buffer", "unit_packet_buffer"]),
    (r"/InPlaceWriter", ["unit_packet_buffer"]),
    (r"/HugePages", BLOCKS),
    (r"/SharedMemLib", ["unit_shared_mem_lib_substitute", "unit_shared_mem_lib"]),
    (r"/(Sys|Deadline)", ["unit_timed_wait", "unit_sys", "process_semaphore",
                          "unit_shared_mem_lib"]),
    (r"/SharedMemory(Block|Metadata)", BLOCKS),
    (r"/InterfaceFactory", ["unit_registry", "blocks"]),
    (r"/(NamedSemaphore|SemaphoreMulti)", ["unit_named_semaphore", "process_semaphore"]),
    (r"/StandardOutput", ["unit_shared_mem_lib", "unit_named_semaphore", "blocks"]),
    (r"/LockFile/", ["lockfile"] + BLOCKS),
    (r"/MappedFile/", ["companions", "lockfile"]),
    (r"/FileDescriptor/", ["companions"]),
]

# Programs that do not contain the library of rings, blocks and semaphores.
SMALL = ("companions", "lockfile")

# What the tests make of the templates in a header. At -O0 the linker takes the functions that it
# finds first, so that one object with all of them stands for those in the tests.
LOCK_FILE = """#include <array>
#include "LockFileImpl.h"
template class qel::LockFileIOBase<std::array<unsigned char, 32>>;
"""
INSTANCES = {"LockFileBase.h": LOCK_FILE, "LockFileImpl.h": LOCK_FILE, "LockFileLog.h": LOCK_FILE}
INSTANCES_LIKE = "SharedMemoryBlock.cpp"  # is compiled the same way

def programs_of(path):
    return next(programs for pattern, programs in PROGRAMS if re.search(pattern, path))


class BuildFailure(Exception):
    pass


class Workshop:
    """A copy of the library's sources, and a place for the programs that are made of it."""

    def __init__(self, root, build, scratch):
        self.root, self.build, self.scratch = root, build, scratch
        self.mirror = scratch / "tree"
        shutil.copytree(root / LIBRARY, self.mirror / LIBRARY, dirs_exist_ok=True)
        self.commands = {entry["file"]: entry["command"] for entry in
                         json.loads((build / "compile_commands.json").read_text())}
        self.links = {}
        self.linker = next((f"-fuse-ld={name}" for name in ("lld", "gold")
                            if shutil.which(f"ld.{name}")), "")

    @staticmethod
    def sources_of(root):
        return sorted(str(file.relative_to(root)) for folder in SOURCES
                      for file in (root / folder).iterdir())

    def dependents(self, path, program):
        """The sources of a program that are to be compiled anew when a file of the library changes:
        of the library all that depend on it, of the tests those that name it.
        """
        if path.endswith(".cpp"):
            return [self.root / path]
        name = Path(path).name
        folders = "MappedFile|FileDescriptor" + ("" if program in SMALL else "|SharedMemory")
        return [Path(file) for file, command in self.commands.items()
                if (re.search(f"{LIBRARY}({folders})/", file)
                    and self.includes(Path(file), name, set()))
                or (f"/{program}.dir/" in command and f'"{name}"' in Path(file).read_text())]

    def includes(self, file, name, seen):
        for header in re.findall(r'#include ["<](\w+\.h)[">]', file.read_text()):
            if header == name:
                return True
            if header not in seen:
                seen.add(header)
                found = [*(self.root / LIBRARY).glob(f"*/*/{header}"), *file.parent.glob(header)]
                if found and self.includes(found[0], name, seen):
                    return True
        return False

    def compile(self, source, path, target):
        """Compiles a source of the copy, in which the file at `path` has changed."""
        like = source or next(file for file in self.commands if file.endswith(INSTANCES_LIKE))
        words = [word for word in shlex.split(self.commands[str(like)])
                 if not re.match(r"-W|-g|-pedantic", word)]
        words = words[next(i for i, word in enumerate(words) if "++" in word):]
        place = words.index("-o") + 1
        original, words[place] = words[place], str(target)
        if not source:
            words[-1] = str(target.with_suffix(".cpp"))
            Path(words[-1]).write_text(INSTANCES[Path(path).name])
        words += ["-w", "-O0"]
        if path.endswith(".h") and (not source or LIBRARY in str(source)):
            # Functions of the header stand in these objects, ahead of all others.
            words.append("-fkeep-inline-functions")
        words = [word.replace(str(self.root / LIBRARY), str(self.mirror / LIBRARY))
                 for word in words]
        if subprocess.run(words, cwd=self.build, capture_output=True, check=False).returncode != 0:
            raise BuildFailure(path)
        return original

    def compile_for(self, program, path, objects, tests):
        """Adds what is missing of a program's objects, those of its tests with what they replace.
        """
        sources = self.dependents(path, program)
        if Path(path).name in INSTANCES:
            sources.append(None)
        for source in sources:
            if source in objects or source in tests:
                continue
            target = self.scratch / f"{len(objects) + len(tests)}.o"
            original = self.compile(source, path, target)
            if source is None or LIBRARY in str(source):
                objects[source] = str(target)
            else:
                tests[source] = (original, str(target))

    def link(self, program, objects, tests):
        if program not in self.links:
            target = subprocess.run(
                ["ninja", "-C", self.build, "-t", "targets", "all"], text=True,
                capture_output=True, check=True).stdout
            file = re.search(rf"^(.*/{program}): CXX_EXEC", target, re.MULTILINE).group(1)
            text = subprocess.run(
                ["ninja", "-C", self.build, "-t", "commands", "-s", file], text=True,
                capture_output=True, check=True).stdout
            self.links[program] = shlex.split(text.replace(": &&", "").replace("&& :", ""))
        replaced = dict(tests.values())
        words = [replaced.get(word, word) for word in self.links[program]
                 if not re.search(r"/libqev_(SharedMemory|MappedFile|FileDescriptor|Logger)", word)]
        words = words[next(i for i, word in enumerate(words) if "++" in word):]
        words[words.index("-o") + 1] = str(self.scratch / program)
        archives = [f"common/lib/{name}/libqev_{name}_static.a"
                    for name in ("SharedMemory", "MappedFile", "FileDescriptor")]
        logger = next((self.build / "common/lib/Logger").glob("libqev_Logger.so.*.*"))
        run = subprocess.run(
            [words[0], self.linker, *objects.values(), *words[1:], *archives, logger, "-ldl",
             f"-Wl,-rpath,{logger.parent}"], cwd=self.build, capture_output=True, text=True,
            check=False)
        if run.returncode != 0:
            raise BuildFailure(run.stderr)
        return self.scratch / program

    def run(self, program, seconds):
        """Whether a program passes: "passed", "failed" or "timeout"."""
        with subprocess.Popen(
                [program, "--gtest_brief=1", "--gtest_fail_fast"], cwd=self.scratch,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                start_new_session=True, preexec_fn=forbid_cores) as process:
            try:
                result = "passed" if process.wait(seconds) == 0 else "failed"
            except subprocess.TimeoutExpired:
                result = "timeout"
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        remove_objects_of(process.pid)
        return result

    def measure(self, program):
        """How long a program takes without a fault."""
        path = self.link(program, {}, {})
        start = time.monotonic()
        if self.run(path, 600) != "passed":
            raise BuildFailure(f"{program} fails without a fault")
        return time.monotonic() - start

    def try_mutant(self, mutant, limits):
        """The verdict on a mutant, and the program that gave it."""
        source = (self.root / mutant.path).read_text()
        place = self.mirror / mutant.path
        try:
            place.write_text(mutant.apply(source))
            objects, tests = {}, {}
            for program in programs_of(mutant.path):
                self.compile_for(program, mutant.path, objects, tests)
                result = self.run(self.link(program, objects, tests), limits[program])
                if result != "passed":
                    return ("caught" if result == "failed" else "timeout"), program
            return "survived", ""
        except BuildFailure:
            return "no build", ""
        finally:
            place.write_text(source)


def forbid_cores():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def remove_objects_of(pid):
    """Removes what a test program that came to a sudden end has left."""
    for folder in ("/dev/shm", "/tmp"):
        for left in Path(folder).glob(f"*qev-test-{pid}-*"):
            if left.is_dir():
                shutil.rmtree(left, ignore_errors=True)
            else:
                left.unlink(missing_ok=True)
