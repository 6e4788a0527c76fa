# SPDX-License-Identifier: Apache-2.0
"""Installs the client library into a temporary directory, then builds and runs four small projects on
it: CMake and pkg-config, each with the shared and the static library.

    install_test.py BUILD VERSION
"""
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.normpath(os.path.join(HERE, "../.."))
BUILD, VERSION = sys.argv[1:3]
PROJECTS = ("cmake_shared", "cmake_static", "pkgconfig_shared", "pkgconfig_static")


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    return done.returncode, done.stdout


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.prefix = os.path.join(directory.name, "prefix")
        cls.projects = os.path.join(directory.name, "projects")
        status, output = run("cmake", "--install", BUILD, "--component", "development", "--prefix",
                             cls.prefix)
        assert status == 0, output
        shutil.copytree(HERE, cls.projects)  # outside of the tree, which has the headers too
        cls.libraries = os.path.dirname(glob.glob(f"{cls.prefix}/lib*/**/librunel.a", recursive=True)[0])
        cls.environment = {**os.environ, "CMAKE_PREFIX_PATH": cls.prefix,
                           "PKG_CONFIG_PATH": os.path.join(cls.libraries, "pkgconfig")}
        with ThreadPoolExecutor() as pool:
            cls.built = dict(zip(PROJECTS, pool.map(cls.build, PROJECTS)))

    @classmethod
    def build(cls, project):
        """Builds @p project: the exit status, the output and the path of the program."""
        directory = os.path.join(cls.projects, project)
        script = "./build.sh"
        if project.startswith("cmake"):
            script = "cmake -G Ninja -B . -DCMAKE_CXX_FLAGS=-Werror && cmake --build ."
        status, output = run("sh", "-c", script, cwd=directory, env=cls.environment)
        return status, output, os.path.join(directory, "program")

    def check(self, project):
        status, output, program = self.built[project]
        self.assertEqual(status, 0, output)
        libraries = {} if project.endswith("static") else {"LD_LIBRARY_PATH": self.libraries}
        environment = {**self.environment, **libraries}
        self.assertEqual(run(program, "gateway:6111", env=environment),
                         (0, f"{VERSION} gateway 6111\n"))
        self.assertEqual(run(program, "gateway:", env=environment)[0], 1)
        needed = run("readelf", "-d", program)[1]
        self.assertEqual("[librunel.so.1]" in needed, project.endswith("shared"), needed)

    def test_cmake_shared(self):
        self.check("cmake_shared")

    def test_cmake_static(self):
        self.check("cmake_static")

    def test_pkgconfig_shared(self):
        self.check("pkgconfig_shared")

    def test_pkgconfig_static(self):
        self.check("pkgconfig_static")

    def test_every_header_is_installed(self):
        def headers(top):
            return sorted(os.path.relpath(path, top) for path in
                          glob.glob(f"{top}/**/*.h", recursive=True))
        self.assertEqual(headers(f"{self.prefix}/include/runel"),
                         headers(f"{ROOT}/client/include/runel"))

    def test_no_path_of_the_build_is_installed(self):
        for pattern in ("*.cmake", "*.pc"):
            for path in glob.glob(f"{self.libraries}/**/{pattern}", recursive=True):
                with open(path, encoding="utf-8") as file:
                    self.assertNotIn(ROOT, file.read(), path)

    def test_another_major_version_is_refused(self):
        directory = os.path.join(self.projects, "newer")
        os.mkdir(directory)
        with open(f"{HERE}/cmake_shared/CMakeLists.txt", encoding="utf-8") as file:
            text = file.read().replace("runel 1 REQUIRED", "runel 2 REQUIRED")
        with open(f"{directory}/CMakeLists.txt", "w", encoding="utf-8") as file:
            file.write(text)
        status, output = run("cmake", "-G", "Ninja", "-B", directory, "-S", directory,
                             env=self.environment)
        self.assertNotEqual(status, 0)
        self.assertIn("version: 1.", output)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
