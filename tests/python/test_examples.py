# SPDX-License-Identifier: Apache-2.0
"""The programs in client/python/examples, and the structure of the package."""
import ast
import hashlib
import importlib
import inspect
import os
import shutil
import signal
import subprocess
import sys
import tarfile
import tempfile
import unittest
from unittest import mock
import zipfile

import runel
from support import ADDRESS, DaemonCase, Dialer, LONG, wait_until

PACKAGE = os.path.dirname(runel.__file__)
EXAMPLES = os.path.join(PACKAGE, "../../examples")
STANDARD = {"__future__", "ast", "asyncio", "base64", "collections", "contextlib", "dataclasses", "enum",
            "fcntl", "functools", "gzip", "hashlib", "io", "itertools", "math", "os", "pathlib", "posixpath",
            "re", "runel", "secrets", "select", "socket", "stat", "struct", "sys", "tarfile", "threading",
            "time", "types", "typing", "zipfile"}
FACES = ("Device", "Master", "Fleet", "Agent")


class ExampleTest(DaemonCase):
    def start(self, name, *args):
        command = [sys.executable, "-B", os.path.join(EXAMPLES, name), *map(str, args)]
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def ran(self, name, *args):
        process = self.start(name, *args)
        output, errors = process.communicate(timeout=LONG)
        return process.returncode, output, errors

    def test_run_task(self):
        self.assertEqual(self.ran("run_task.py", ADDRESS, "echo", "hi"), (0, "hi\n", ""))
        self.assertEqual(self.ran("run_task.py", ADDRESS, "sh", "-c", "exit 7")[0], 7)
        status, _, errors = self.ran("run_task.py", "127.0.0.1:1", "true")
        self.assertEqual(status, 125)
        self.assertIn("link: 127.0.0.1:1: cannot connect: Connection refused (not sent)", errors)

    def test_push_file(self):
        source, target = self.file("source", bytes(9 << 20)), self.path("target")
        status, output, errors = self.ran("push_file.py", ADDRESS, source, target)
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("8.4 of 9.4 MB\n9.4 of 9.4 MB\n", output)
        self.assertEqual(self.content("target"), bytes(9 << 20))

    def test_a_master_of_ten_devices_and_an_agent(self):
        master = self.start("master.py", 10)
        for number in range(2, 11):
            dialer = wait_until(lambda n=number: self.dial(n), "the master listens")
            self.addCleanup(dialer.close)
        lines = dict(master.stdout.readline().strip().split(": ") for _ in range(10))
        self.assertEqual(len(lines), 10)
        self.assertIn(os.uname().release, lines.values())
        self.assertEqual(self.ran("agent.py", "<status>up</status>"), (0, "<heard/>\n", ""))
        self.assertIn("says <status>up</status>", master.stdout.readline())
        master.send_signal(signal.SIGINT)
        self.assertEqual(master.wait(LONG), 0)

    @staticmethod
    def dial(number):
        try:
            return Dialer(5112, f"127.0.0.{number}", b"gw-%d" % number, content=b"played")
        except ConnectionRefusedError:
            return None


class PackageTest(unittest.TestCase):
    def sources(self):
        for directory, _, names in os.walk(os.path.join(PACKAGE, "../..")):
            for name in names:
                if name.endswith(".py"):
                    with open(os.path.join(directory, name), encoding="utf-8") as file:
                        yield name, file.read()

    def test_the_syntax_is_that_of_python_3_9(self):
        for name, text in self.sources():
            ast.parse(text, name, feature_version=(3, 9))

    def test_only_the_standard_library_is_imported(self):
        for name, text in self.sources():
            for node in ast.walk(ast.parse(text)):
                modules = [alias.name for alias in node.names] if isinstance(node, ast.Import) else \
                    [node.module or ""] if isinstance(node, ast.ImportFrom) else []
                for module in modules:
                    self.assertIn(module.split(".")[0], STANDARD, name)

    def test_both_faces_have_the_same_methods(self):
        for face in FACES:
            plain, other = getattr(runel, face), getattr(runel, f"Async{face}")
            self.assertEqual(self.methods(plain), self.methods(other), face)

    def methods(self, face):
        found = {}
        for name, member in vars(face).items():
            if not name.startswith("_") and callable(member):
                parameters = inspect.signature(member).parameters.values()
                found[name] = [(item.name, item.kind, item.default) for item in parameters]
        return found

    def test_everything_public_is_documented(self):
        for name in runel.__all__:
            value = getattr(runel, name)
            if not inspect.isclass(value):
                continue
            self.assertTrue(value.__doc__, name)
            if name.removeprefix("Async") in FACES:
                for method in self.methods(value):
                    self.assertTrue(getattr(value, method).__doc__, f"{name}.{method}")


class InstallTest(unittest.TestCase):
    """The files that pip installs. The build needs no network."""

    USE = "import sys; sys.path.insert(0, sys.argv[1]); import runel; print(len(runel.TASKS))"

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        root = os.path.join(PACKAGE, "../..")
        sys.path.insert(0, root)
        self.addCleanup(sys.path.remove, root)
        self.backend = importlib.import_module("build_backend")

    def test_the_wheel(self):
        wheel = os.path.join(self.directory, self.backend.build_wheel(self.directory))
        done = subprocess.run([sys.executable, "-I", "-c", self.USE, wheel], check=True,
                              capture_output=True, text=True)
        self.assertEqual(done.stdout, "25\n")
        with zipfile.ZipFile(wheel) as archive:
            self.assertIn("runel/py.typed", archive.namelist())
            record = archive.read("runel-1.0.0.dist-info/RECORD").decode().splitlines()
            self.assertEqual([line.split(",")[0] for line in record], archive.namelist())

    def test_the_source_archive(self):
        with mock.patch.dict(os.environ):
            os.environ.pop("SOURCE_DATE_EPOCH", None)
            name = self.backend.build_sdist(self.directory)
        with tarfile.open(os.path.join(self.directory, name)) as archive:
            names = archive.getnames()
        for wanted in ("PKG-INFO", "build_backend.py", "src/runel/__init__.py", "src/runel/py.typed"):
            self.assertIn(f"runel-1.0.0/{wanted}", names)
        with open(os.path.join(self.directory, name), "rb") as file:
            self.assertEqual(int.from_bytes(file.read(8)[4:], "little"), 315532800)  # not the time of today

    def archives(self, copy, epoch, zone):
        """The SHA-256 sums of both archives of the package in @p copy, made in another process."""
        backend = "import sys; sys.path.insert(0, '.'); import build_backend as b;"
        for kind in "wheel", "sdist":
            name = subprocess.run([sys.executable, "-B", "-I", "-c", f"{backend} print(b.build_{kind}('..'))"],
                                  env={**os.environ, "SOURCE_DATE_EPOCH": epoch, "TZ": zone},
                                  cwd=copy, check=True, capture_output=True, text=True).stdout.strip()
            with open(os.path.join(copy, "..", name), "rb") as file:
                yield hashlib.sha256(file.read()).hexdigest()

    def test_both_archives_have_the_same_bytes_for_other_copies_times_and_modes(self):
        made = []
        for name, umask in ("a", 0o002), ("another", 0o077):
            copy = os.path.join(self.directory, name, "python")
            shutil.copytree(os.path.join(PACKAGE, "../.."), copy,
                            ignore=shutil.ignore_patterns("__pycache__", "*.egg-info", "build", "dist"))
            for place, names, files in os.walk(copy):
                for path in [os.path.join(place, file) for file in names + files]:
                    os.chmod(path, os.stat(path).st_mode & ~umask)
                    os.utime(path, (umask, 86400 * umask))
                    os.chown(path, umask, umask)
            made.append(list(self.archives(copy, "1700000000", f"XYZ{umask // 6}")))
        self.assertEqual(*made)
        later = list(self.archives(copy, "1700000100", "UTC0"))
        self.assertEqual([one == other for one, other in zip(made[0], later)], [False, False])
