# SPDX-License-Identifier: Apache-2.0
"""Runs the blocks of docs/install.md about Buildroot, Yocto and OpenWrt, with stubs of their build systems,
and starts what they make as a device does at its boot. Takes minutes: scripts/images runs it
(tests/images/test_install_document.py).
"""
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(HERE / "openwrt"), str(HERE / "recipes")]

from support import world  # noqa: E402
from support.logs import LogCollector  # noqa: E402
from device import ask, connect, end_processes  # noqa: E402
from install_document import blocks  # noqa: E402
from tree import OpenwrtTree  # noqa: E402

BUILDROOT = """\
-include .config
-include output/.br2-external.mk
all:
	$(MAKE) -f {stub} OUTPUT=$(CURDIR)/output BR2_EXTERNAL_RUNELD_PATH=$(BR2_EXTERNAL) \\
	  BR2_INIT_BUSYBOX=$(BR2_INIT_BUSYBOX) BR2_PACKAGE_RUNELD_ENABLE=$(BR2_PACKAGE_RUNELD_ENABLE) \\
	  'BR2_PACKAGE_RUNELD_OPTIONS=$(BR2_PACKAGE_RUNELD_OPTIONS)' target
olddefconfig:
	test -f $(BR2_EXTERNAL)/external.desc
	grep -qx BR2_PACKAGE_RUNELD=y .config
	mkdir -p output
	echo 'BR2_EXTERNAL := $(BR2_EXTERNAL)' >output/.br2-external.mk
"""
OPENWRT = """\
defconfig:
	grep -qx CONFIG_PACKAGE_runeld=m .config
package/runeld/compile:
	$(MAKE) -C package/feeds/runeld/runeld TOPDIR={stub} OUTPUT=$(CURDIR)/output compile
	mkdir -p bin/packages
	cp output/bin/*.ipk bin/packages/
"""
FEEDS = """\
#!/bin/sh -e
# A stub of OpenWrt's scripts/feeds: update NAME, install NAME.
set -- "$@" "$(awk -v name="$2" '$1 == "src-link" && $2 == name { print $3 }' feeds.conf)"
case $1 in
  update) mkdir -p feeds; ln -s "$3" "feeds/$2" ;;
  install) mkdir -p "package/feeds/$2"; ln -s "../../../feeds/$2/$2" "package/feeds/$2/$2" ;;
  *) exit 99 ;;
esac
"""


class DocumentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        world.adopt_orphans()
        cls.log = LogCollector()
        cls.addClassCleanup(cls.log.close)
        directory = tempfile.TemporaryDirectory(dir=os.environ.get("RUNELD_BUILDS"))
        cls.addClassCleanup(directory.cleanup)
        cls.home = pathlib.Path(directory.name)
        cls.programs = cls.home / "programs"
        cls.programs.mkdir()
        cls.run_blocks("release", ROOT)

    @classmethod
    def run_blocks(cls, place, directory):
        """Runs the blocks of @p place in @p directory of this machine."""
        for _, text in blocks(place):
            done = subprocess.run(
                ["bash", "-e", "-c", text], cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT, text=True, check=False,
                env={**os.environ, "HOME": str(cls.home), "PATH": f"{cls.programs}:{os.environ['PATH']}"})
            assert done.returncode == 0, f"{text}\nended with {done.returncode}:\n{done.stdout[-4000:]}"

    def directory(self, name, files):
        """A directory with @p files: texts by their names."""
        top = self.home / name
        for file, text in files.items():
            (top / file).parent.mkdir(parents=True, exist_ok=True)
            (top / file).write_text(text, encoding="utf-8")
            (top / file).chmod(0o755)
        return top

    def tree(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        tree = OpenwrtTree(directory.name)
        self.addCleanup(tree.unmount)
        self.addCleanup(end_processes)
        return tree

    def boot(self, contents, scripts):
        """Starts the @p scripts of an image, as its init does."""
        tree = self.tree()
        subprocess.run(["cp", "-a", f"{contents}/.", tree.top], check=True)
        tree.add_libraries(tree.top / "usr/sbin/runeld")
        status, output = tree.run(f"for script in {scripts}; do $script start || exit; done")
        self.assertEqual(status, 0, output)

    def check_first_task(self):
        since = self.log.mark()
        self.assertEqual(ask("exec", "/bin/uname", "-r"), f"{os.uname().release}\n")
        self.log.wait_for(" address = 192.0.2.1", since=0)
        self.assertGreaterEqual(self.log.mark(), since)

    def test_buildroot(self):
        top = self.directory("buildroot", {
            "Makefile": BUILDROOT.format(stub=HERE / "recipes/buildroot.mk"),
            ".config": "BR2_INIT_BUSYBOX=y\n"})
        self.run_blocks("buildroot", top)
        self.boot(top / "output/target", "/etc/init.d/S??*")
        self.check_first_task()

    def test_yocto(self):
        stub = f"{shlex.quote(sys.executable)} -B {shlex.quote(str(HERE / 'recipes/bitbake_stub.py'))}"
        for name in ("bitbake", "bitbake-layers"):
            program = self.programs / name
            program.write_text(f'#!/bin/sh\nexec {stub} {name} "$@"\n', encoding="utf-8")
            program.chmod(0o755)
        top = self.directory("yocto", {"conf/local.conf": 'DISTRO_FEATURES = "sysvinit"\n'})
        self.run_blocks("yocto", top)
        self.boot(top / "tmp/rootfs", "/etc/rc5.d/S*")
        self.check_first_task()

    def test_openwrt(self):
        top = self.directory("openwrt", {
            "Makefile": OPENWRT.format(stub=HERE / "recipes/openwrt"), "scripts/feeds": FEEDS})
        self.run_blocks("openwrt-build", top)
        package = next((top / "bin/packages").glob("runeld_*.ipk"))
        tree = self.tree()
        tree.add(package, f"tmp/{package.name}")
        tree.add_libraries(top / "output/ipkg/runeld/data/usr/sbin/runeld")
        self.assertIsNone(connect())
        for _, text in blocks("openwrt"):
            status, output = tree.run(f"set -e\n{text}")
            self.assertEqual(status, 0, output)
        self.check_first_task()


if __name__ == "__main__":
    unittest.main(verbosity=2)
