#!/usr/bin/env python3
"""Installs a build tree into an empty folder and does there what a stranger would: builds the examples as a CMake
project of their own and, file by file, with what pkg-config says, then runs them beside the installed `veyra serve`.

CTest gives the arguments, see CMakeLists.txt beside this file.
"""
import argparse
import contextlib
import hashlib
import os
import re
import shlex
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

parser = argparse.ArgumentParser()
for name in ("cmake", "source", "tree", "config", "libdir", "generator", "make"):
    parser.add_argument("--" + name, required=True)
for name in ("cc", "cxx", "pkg-config", "toolchain", "launcher"):
    parser.add_argument("--" + name, default="")
given = parser.parse_args()

SOURCE = Path(given.source)
STRICT = "-Wall -Wextra -Wpedantic -Werror"
NOBODY_SERVES = "nobody serves the bus; start `veyra serve`\n"
ENVIRONMENT = dict(os.environ, VEYRASVC_PIPE_NAMESPACE=f"examples-{os.getpid()}", VEYRA_LOG_LEVEL="OFF")

work = Path(tempfile.mkdtemp())
prefix = work / "prefix"
# Built by CMake, a program knows where the library lies, but on Windows it has to lie beside it.
by_cmake = prefix / "bin" if given.launcher else work / "by-cmake"
by_hand = work / "by-hand"


def setUpModule():
    unittest.addModuleCleanup(shutil.rmtree, work)
    build(given.cmake, "--install", given.tree, "--prefix", str(prefix), "--config", given.config)
    shutil.copytree(SOURCE / "examples", work / "examples")  # away from the library's sources
    build_by_cmake()
    if given.pkg_config:
        build_by_hand()


def build(*command, **settings):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **settings)
    if done.returncode != 0:
        raise RuntimeError(shlex.join(command) + "\n" + done.stdout)
    return done.stdout


def build_by_cmake():
    compilers = ([f"-DCMAKE_TOOLCHAIN_FILE={given.toolchain}"] if given.toolchain else
                 [f"-DCMAKE_C_COMPILER={given.cc}", f"-DCMAKE_CXX_COMPILER={given.cxx}"])
    build(given.cmake, "-S", str(work / "examples"), "-B", str(work / "tree"), "-G", given.generator,
          f"-DCMAKE_MAKE_PROGRAM={given.make}", *compilers,
          f"-Dveyrasvc_DIR={prefix / given.libdir / 'cmake/veyrasvc'}", f"-DCMAKE_RUNTIME_OUTPUT_DIRECTORY={by_cmake}",
          f"-DCMAKE_C_FLAGS={STRICT}", f"-DCMAKE_CXX_FLAGS={STRICT}", "-DCMAKE_NO_SYSTEM_FROM_IMPORTED=ON")
    build(given.cmake, "--build", str(work / "tree"))


def build_by_hand():
    by_hand.mkdir()
    (work / "examples/first.cpp").write_text(first_program(), encoding="utf-8")
    (work / "examples/all_headers.cpp").write_text(include_all() + "int main() {}\n", encoding="utf-8")
    flags = build(given.pkg_config, "--cflags", "--libs", "veyrasvc",
                  env=dict(os.environ, PKG_CONFIG_PATH=str(prefix / given.libdir / "pkgconfig"))).split()
    for file in sorted((work / "examples").glob("*.c*")):
        compiler = [given.cc, "-std=c11"] if file.suffix == ".c" else [given.cxx, "-std=c++17"]
        build(*compiler, *STRICT.split(), str(file), *flags, "-o", str(by_hand / file.stem))


def first_program():
    return re.search(r"```cpp\n(.*?)```", (SOURCE / "README.md").read_text(encoding="utf-8"), re.S)[1]


def include_all():
    headers = (path.relative_to(prefix / "include") for path in sorted((prefix / "include/veyrasvc").rglob("*.h")))
    return "".join(f'#include "{header.as_posix()}"\n' for header in headers)


# ---- Programs --------------------------------------------------------------------------------------------------------


def command(program, *arguments):
    launcher, ending = ([given.launcher], ".exe") if given.launcher else ([], "")
    return [*launcher, f"{program}{ending}", *arguments]


def environment(program):
    return dict(ENVIRONMENT, LD_LIBRARY_PATH=str(prefix / given.libdir)) if program.parent == by_hand else ENVIRONMENT


def run(program, *arguments):
    """Exit code, standard output, standard error."""
    done = subprocess.run(command(program, *arguments), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          env=environment(program), check=False)
    return done.returncode, done.stdout, done.stderr


@contextlib.contextmanager
def running(program, *arguments):
    with subprocess.Popen(command(program, *arguments), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, env=environment(program)) as process:
        try:
            yield process
        finally:
            process.kill()


veyra = prefix / "bin/veyra"


def await_module(module):
    while run(veyra, "status", module)[0] != 0:
        pass  # the time-out of the test is the limit


class Examples:
    @contextlib.contextmanager
    def host(self):
        """A host that nobody has met before, and that ends as it should."""
        with running(veyra, "serve") as process:
            self.assertEqual(process.stdout.readline(), "veyra: serving \\\\.\\Pipe\\iVeyraService\n")
            yield
            process.send_signal(signal.SIGINT if given.launcher else signal.SIGTERM)
            self.assertEqual((*process.communicate(), process.returncode), ("", "", 0))

    def end_by_enter(self, process):
        self.assertEqual((*process.communicate("\n"), process.returncode), ("", "", 0))

    def test_hello(self):
        hello = self.folder / "hello"
        with self.host():
            self.assertEqual(run(hello), (0, "Hello, bus\n", ""))

    def test_request_and_answer(self):
        program = self.folder / "request_answer"
        with self.host():
            code, _, talk = run(program, "ask", "anybody?")
            self.assertEqual((code, talk), (1, "request_answer: no answer; is `request_answer answer` running?\n"))
            with running(program, "answer") as answerer:
                self.assertEqual(answerer.stderr.readline(), "shouting; Enter ends this\n")
                await_module("0x900020")
                for question, answer in [("to be or not", "TO BE OR NOT\n"), ("", "\n")]:
                    self.assertEqual(run(program, "ask", question), (0, answer, ""))
                self.end_by_enter(answerer)

    def test_publish_and_subscribe(self):
        program = self.folder / "publish_subscribe"
        with self.host(), running(program, "subscribe") as reader:
            self.assertEqual(reader.stderr.readline(), "reading the news; Enter ends this\n")
            await_module("0x900031")
            for news in ["It rains", "The sun shines"]:
                self.assertEqual(run(program, "publish", news), (0, "", ""))
                self.assertEqual(reader.stdout.readline(), news + "\n")
            self.end_by_enter(reader)

    def test_packing(self):
        packing = self.folder / "packing"
        for text, number in [("abc", 1), ("", -2), ("x" * 300, 2147483647)]:
            packed = struct.pack("<h", len(text)) + text.encode() + struct.pack("<i", number)
            self.assertEqual(run(packing, text, str(number)),
                             (0, f"{len(packed)} bytes: {packed.hex(' ')}\n{text} {number}\n", ""))
        if not given.launcher:  # no Windows command line is as long
            self.assertEqual(run(packing, "x" * 32768, "1"), (1, "", "packing: a text has at most 32767 bytes\n"))

    def test_hashing(self):
        for number, content in enumerate([b"", b"abc", bytes(range(256)) * 100]):
            (work / f"file{number}").write_bytes(content)
        names = [f"file{number}" for number in range(3)]
        expected = "".join(f"MD5 ({name}) = {hashlib.md5((work / name).read_bytes()).hexdigest().upper()}\n"
                           f"SHA256 ({name}) = {hashlib.sha256((work / name).read_bytes()).hexdigest().upper()}\n"
                           for name in names)
        os.chdir(work)
        hashing = self.folder / "hashing"
        self.assertEqual(run(hashing, *names), (0, expected, ""))
        self.assertEqual(run(hashing, "missing", *names), (1, expected, "hashing: cannot read 'missing'\n"))

    def test_nobody_serves_the_bus(self):
        for name, *arguments in [("hello",), ("request_answer", "answer"), ("request_answer", "ask", "x"),
                                 ("publish_subscribe", "subscribe"), ("publish_subscribe", "publish", "x")]:
            program = self.folder / name
            self.assertEqual(run(program, *arguments), (1, "", f"{name}: {NOBODY_SERVES}"))

    def test_wrong_usage(self):
        for name, *arguments in [("hello", "x"), ("request_answer",), ("request_answer", "ask"),
                                 ("publish_subscribe", "x"), ("packing", "x"), ("packing", "x", "1x"),
                                 ("packing", "x", "2147483648"), ("hashing",)]:
            program = self.folder / name
            code, data, talk = run(program, *arguments)
            self.assertEqual((code, data, talk.split()[:2]), (2, "", ["usage:", name]), arguments)


class BuiltByCMake(Examples, unittest.TestCase):
    folder = by_cmake


@unittest.skipUnless(given.pkg_config, "without pkg-config")
class BuiltByHand(Examples, unittest.TestCase):
    folder = by_hand

    def test_the_first_program_of_the_readme(self):
        with self.host(), running(by_hand / "first") as greeter:
            await_module("0x900001")
            self.assertEqual(run(veyra, "send", "--to", "0x900001", "--msg", "1", "Ada")[:2], (0, "Hello, Ada!"))
            self.end_by_enter(greeter)


class Installed(unittest.TestCase):
    def test_every_header_that_offers_something_is_installed(self):
        offers = re.compile(r"^(?!\s*#).*\b(?:VEYRASVC|LOGGING)_API\b", re.M)
        headers = [path for room in ("logging", "veyrasvc") for path in (SOURCE / room).rglob("*.h")
                   if offers.search(path.read_text(encoding="utf-8"))]
        self.assertIn(SOURCE / "veyrasvc/bus/IPCMessageExport.h", headers)
        self.assertEqual([], [str(path) for path in headers
                              if not (prefix / "include" / path.relative_to(SOURCE)).exists()])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
