# SPDX-License-Identifier: Apache-2.0
"""Objects and archives are the same bytes in another directory. scripts/reproducible compares everything."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TARGETS = "runeld_base", "runeld_options_scan"  # headers of the tree, with and without a link; an archive
OTHER = {"TZ": "XYZ-5:45", "LC_ALL": "POSIX", "HOME": "/nonexistent", "USER": "someone"}


class ReproducibleTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def copy(self, name):
        """A copy of the tracked sources, without what a build without tests does not read."""
        git = ["git", "-c", "safe.directory=*", "-C", ROOT, "ls-files", "-z"]
        listed = subprocess.run(git, check=True, stdout=subprocess.PIPE, text=True).stdout
        for path in filter(None, listed.split("\0")):
            if not path.startswith(("tests/", "fuzz/", "verify/", "bench/")) and (ROOT / path).is_file():
                (self.directory / name / path).parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(ROOT / path, self.directory / name / path)
        return self.directory / name

    def run_cmake(self, *arguments, variables, umask):
        environment = {**os.environ, "CCACHE_DISABLE": "1", **variables}
        for variable in "CMAKE_C_COMPILER_LAUNCHER", "CMAKE_CXX_COMPILER_LAUNCHER":
            environment.pop(variable, None)
        done = subprocess.run(["cmake", *map(str, arguments)], env=environment, umask=umask,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)

    def build(self, sources, directory, compiler, variables, umask):
        """Builds TARGETS. The bytes of each object and archive, by its path."""
        self.run_cmake("-S", sources, "-B", directory, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                       "-DBUILD_TESTING=OFF", "-DRUNELD_CLIENT=OFF", "-DRUNELD_CTL=OFF",
                       f"-DCMAKE_CXX_COMPILER={compiler}", variables=variables, umask=umask)
        self.run_cmake("--build", directory, "--target", *TARGETS, variables=variables, umask=umask)
        return {path.relative_to(directory): path.read_bytes()
                for path in sorted(directory.rglob("*")) if path.suffix in (".o", ".a")
                and not path.is_relative_to(directory / "CMakeFiles")}

    def compare_builds(self, compiler):
        one, other = self.copy("one"), self.copy("other/of/another/length")
        built = self.build(one, one / "build/release", compiler, {}, 0o022)
        again = self.build(other, self.directory / "elsewhere", compiler, OTHER, 0o077)
        self.assertEqual(list(built), list(again))
        self.assertTrue([path for path in built if path.suffix == ".o"])
        self.assertTrue([path for path in built if path.suffix == ".a"])
        self.assertEqual([path for path in built if built[path] != again[path]], [])
        for path, content in built.items():
            self.assertNotIn(os.fsencode(self.directory), content, path)
        # A debugger that runs at the top of the tree finds sources and headers.
        objects = b"".join(built.values())
        for name in b"lib/base/log.cc", b"src/main/options.cc", b"/usr/src/runeld":
            self.assertIn(name + b"\0", objects)
        self.assertIn(b"\0src/main\0", objects)

    def test_gcc(self):
        self.compare_builds("g++")

    def test_clang(self):
        self.compare_builds("clang++")


if __name__ == "__main__":
    unittest.main()
