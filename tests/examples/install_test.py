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
    first = re.search(r"```cpp\n(.*?)```", (SOURCE / "README.md").read_text(encoding="utf-8"), re.S)[1]
    (work / "examples/first.cpp").write_text(first, encoding="utf-8")
    headers = (path.relative_to(prefix / "include") for path in (prefix / "include/veyrasvc").rglob("*.h"))
    all_headers = "".join(f'#include "{header.as_posix()}"\n' for header in sorted(headers))
    (work / "examples/all_headers.cpp").write_text(all_headers + "int main() {}\n", encoding="utf-8")
    flags = build(given.pkg_config, "--cflags", "--libs", "veyrasvc",
                  env=dict(os.environ, PKG_CONFIG_PATH=str(prefix / given.libdir / "pkgconfig"))).split()
    for file in sorted((work / "examples").glob("*.c*")):
        compiler = [given.cc, "-std=c11"] if file.suffix == ".c" else [given.cxx, "-std=c++17"]
        build(*compiler, *STRICT.split(), str(file), *flags, "-o", str(by_hand / file.stem))


@contextlib.contextmanager
def running(program, *arguments):
    launcher, ending = ([given.launcher], ".exe") if given.launcher else ([], "")
    environment = dict(ENVIRONMENT)
    if program.parent == by_hand:
        environment["LD_LIBRARY_PATH"] = str(prefix / given.libdir)
    with subprocess.Popen([*launcher, f"{program}{ending}", *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, env=environment) as process:
        try:
            yield process
        finally:
            process.kill()


def run(program, *arguments):
    """Exit code, standard output, standard error."""
    with running(program, *arguments) as process:
        data, talk = process.communicate()
    return process.returncode, data, talk


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

    def test_messages(self):
        """A message to oneself, a question, and news."""
        ask, news = self.folder / "request_answer", self.folder / "publish_subscribe"
        with self.host():
            self.assertEqual(run(self.folder / "hello"), (0, "Hello, bus\n", ""))
            self.assertEqual(run(ask, "ask", "anybody?")[:2], (1, ""))
            with running(ask, "answer") as answerer:
                self.assertEqual(answerer.stderr.readline(), "shouting; Enter ends this\n")
                await_module("0x900020")
                for question, answer in [("to be or not", "TO BE OR NOT\n"), ("", "\n")]:
                    self.assertEqual(run(ask, "ask", question), (0, answer, ""))
                self.end_by_enter(answerer)
            with running(news, "subscribe") as reader:
                self.assertEqual(reader.stderr.readline(), "reading the news; Enter ends this\n")
                await_module("0x900031")
                for text in ["It rains", "The sun shines"]:
                    self.assertEqual(run(news, "publish", text), (0, "", ""))
                    self.assertEqual(reader.stdout.readline(), text + "\n")
                self.end_by_enter(reader)

    def test_packing_and_hashing(self):
        for text, number in [("", -2), ("x" * 300, 2147483647)]:
            packed = struct.pack("<h", len(text)) + text.encode() + struct.pack("<i", number)
            self.assertEqual(run(self.folder / "packing", text, str(number)),
                             (0, f"{len(packed)} bytes: {packed.hex(' ')}\n{text} {number}\n", ""))
        (work / "file").write_bytes(packed)
        os.chdir(work)
        hashes = "".join(f"{name} (file) = {hashlib.new(name, packed).hexdigest().upper()}\n"
                         for name in ("MD5", "SHA256"))
        self.assertEqual(run(self.folder / "hashing", "missing", "file"),
                         (1, hashes, "hashing: cannot read 'missing'\n"))

    def test_refusals(self):
        for expected, name, *arguments in [
                (1, "hello"), (1, "request_answer", "answer"), (1, "publish_subscribe", "publish", "x"),
                (2, "hello", "x"), (2, "request_answer", "ask"), (2, "publish_subscribe", "x"),
                (2, "packing", "x", "2147483648"), (2, "hashing")]:
            code, data, talk = run(self.folder / name, *arguments)
            self.assertEqual((code, data), (expected, ""), talk)
            nobody = f"{name}: nobody serves the bus; start `veyra serve`\n"
            self.assertTrue(talk == nobody if code == 1 else talk.startswith(f"usage: {name}"), talk)


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
