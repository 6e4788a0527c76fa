# SPDX-License-Identifier: Apache-2.0
"""Builds with each recipe, with stubs of the build systems for this machine, and tries what it installs in a
tree of busybox. Takes minutes: scripts/images runs it (tests/images/test_recipes.py).
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(HERE / "openwrt"), str(HERE / "recipes")]

from support import world  # noqa: E402
from support.logs import LogCollector  # noqa: E402
from support.wait import wait_until  # noqa: E402
from bitbake import Recipe  # noqa: E402
from device import ask, connect, end_processes, processes, send  # noqa: E402
from tree import OpenwrtTree  # noqa: E402

UNIT = "usr/lib/systemd/system/runeld.service"
COMMON = {"/etc/default/runeld", "/usr/lib/runeld/runeld-guard", "/usr/sbin/runeld", "/usr/sbin/runeld-protect",
          "/usr/share/runeld/version", f"/{UNIT}"}


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                          **options)
    assert done.returncode == 0, f"{command} ended with {done.returncode}:\n{done.stdout[-4000:]}"
    return done.stdout


def files(top):
    return {f"/{path.relative_to(top)}" for path in pathlib.Path(top).rglob("*") if not path.is_dir()}


class BuildCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        world.adopt_orphans()
        cls.log = LogCollector()
        cls.addClassCleanup(cls.log.close)
        directory = tempfile.TemporaryDirectory(dir=os.environ.get("RUNELD_BUILDS"))
        cls.addClassCleanup(directory.cleanup)
        cls.work = pathlib.Path(directory.name)
        run(ROOT / "scripts/release", cls.work / "release")
        cls.recipes = cls.work / "release/recipes"
        cls.build()

    @classmethod
    def build(cls):
        raise NotImplementedError

    def tree(self):
        """A tree of busybox that ends with the test."""
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        tree = OpenwrtTree(directory.name)
        self.addCleanup(tree.unmount)
        self.addCleanup(end_processes)
        return tree

    def image(self, contents):
        """A tree with the files that a recipe has installed below @p contents."""
        tree = self.tree()
        run("cp", "-a", f"{contents}/.", tree.top)
        tree.add_libraries(tree.top / "usr/sbin/runeld")
        return tree

    def check_runs(self, tree, script):
        """The service starts, serves, and is there again after the task "restart"."""
        self.assertEqual(tree.run(f"{script} start"), (0, "runeld: started\n"))
        self.assertEqual(ask("exec", "/bin/echo", "served"), "served\n")
        old = processes("^/usr/sbin/runeld -n ")
        send(self, "restart")
        wait_until(lambda: processes("^/usr/sbin/runeld -n ") not in (old, []), "the next daemon")
        self.assertEqual(ask("exec", "/bin/cat", "/usr/share/runeld/version"), f"{self.version()}\n")
        self.assertEqual(tree.run(f"{script} stop"), (0, "runeld: stopped\n"))
        self.assertIsNone(connect())

    def version(self):
        return next((self.work / "release").glob("*.tar.gz")).name[len("runeld-"):-len(".tar.gz")]


class Buildroot(BuildCase):
    @classmethod
    def build(cls):
        cls.images = {}
        for name, settings in (("busybox", ["BR2_INIT_BUSYBOX=y"]),
                               ("enabled", ["BR2_INIT_BUSYBOX=y", "BR2_PACKAGE_RUNELD_ENABLE=y",
                                            'BR2_PACKAGE_RUNELD_OPTIONS="-i 127.0.0.9"']),
                               ("systemd", ["BR2_INIT_SYSTEMD=y"]),
                               ("systemd-enabled", ["BR2_INIT_SYSTEMD=y", "BR2_PACKAGE_RUNELD_ENABLE=y"])):
            cls.images[name] = cls.work / name
            for stamp in cls.work.glob("output/build/runeld-*/.stamp_target_installed"):
                stamp.unlink()
            run("make", "-j2", "-f", HERE / "recipes/buildroot.mk", f"OUTPUT={cls.work}/output",
                f"BR2_EXTERNAL_RUNELD_PATH={cls.recipes}/buildroot", f"TARGET_DIR={cls.images[name]}",
                *settings, "target")

    def test_busybox_init_has_a_script_that_does_not_start_at_boot(self):
        self.assertEqual(files(self.images["busybox"]), COMMON | {"/etc/init.d/runeld"})
        self.check_runs(self.image(self.images["busybox"]), "/etc/init.d/runeld")

    def test_busybox_init_starts_it_at_boot_if_the_configuration_says_so(self):
        self.assertEqual(files(self.images["enabled"]), COMMON | {"/etc/init.d/S95runeld"})
        tree = self.image(self.images["enabled"])
        since = self.log.mark()
        self.check_runs(tree, "/etc/init.d/S95runeld")
        self.log.wait_for(" address = 127.0.0.9", since=since)

    def test_systemd_gets_a_preset_that_disables_the_unit(self):
        preset = "usr/lib/systemd/system-preset/50-runeld.preset"
        self.assertEqual(files(self.images["systemd"]), COMMON | {f"/{preset}"})
        self.assertEqual((self.images["systemd"] / preset).read_text("utf-8"), "disable runeld.service\n")
        self.assertEqual(files(self.images["systemd-enabled"]), COMMON)

    def test_the_unit_and_the_options_fit(self):
        unit = (self.images["systemd"] / UNIT).read_text("utf-8")
        self.assertIn("\nEnvironmentFile=-/etc/default/runeld\n", unit)
        self.assertIn("\nExecStart=/usr/sbin/runeld -n $RUNELD_OPTIONS\n", unit)
        self.assertIn("\nExecStartPre=+/usr/lib/runeld/runeld-guard\n", unit)
        options = (self.images["enabled"] / "etc/default/runeld").read_text("utf-8")
        self.assertEqual(options.splitlines()[-1], 'RUNELD_OPTIONS="-i 127.0.0.9"')


class Openwrt(BuildCase):
    @classmethod
    def build(cls):
        run("make", "-C", cls.recipes / "openwrt/runeld", f"TOPDIR={HERE}/recipes/openwrt",
            f"OUTPUT={cls.work}/output", "compile")
        cls.package = next((cls.work / "output/bin").glob("runeld_*.ipk"))

    def test_the_package_has_the_daemon_and_its_service(self):
        data = self.work / "output/ipkg/runeld/data"
        self.assertEqual(files(data), {
            "/etc/config/runeld", "/etc/init.d/runeld", "/usr/lib/runeld/runeld-guard",
            "/usr/lib/runeld/runeld-guarded", "/usr/sbin/runeld", "/usr/share/runeld/version"})
        self.assertEqual((data / "etc/config/runeld").stat().st_mode & 0o777, 0o600)
        control = (self.work / "output/ipkg/runeld/control").read_text("utf-8")
        self.assertIn("\nDepends: libc, libstdcpp\n", control)

    def test_the_installed_package_serves_after_it_is_enabled(self):
        tree = self.tree()
        tree.add_libraries(self.work / "output/ipkg/runeld/data/usr/sbin/runeld")
        tree.add(self.package, f"tmp/{self.package.name}")
        status, output = tree.run(f"opkg install /tmp/{self.package.name}")
        self.assertEqual(status, 0, output)
        self.assertIn("runeld: not enabled in /etc/config/runeld\n", output)
        self.assertIsNone(connect())
        self.assertEqual(tree.run("uci set runeld.main.enabled=1; uci commit runeld; /etc/init.d/runeld start"),
                         (0, ""))
        self.assertEqual(ask("exec", "/bin/cat", "/usr/share/runeld/version"), f"{self.version()}\n")
        self.assertEqual(tree.run("/etc/init.d/runeld stop"), (0, ""))

    def test_an_upgrade_keeps_the_settings(self):
        tree = self.tree()
        tree.add_libraries(self.work / "output/ipkg/runeld/data/usr/sbin/runeld")
        tree.add(self.package, f"tmp/{self.package.name}")
        for _ in range(2):
            self.assertEqual(tree.run(f"opkg install /tmp/{self.package.name}")[0], 0)
            tree.run("uci set runeld.main.options='-i 192.0.2.7'")
        self.assertEqual(tree.run("uci get runeld.main.options"), (0, "-i 192.0.2.7\n"))


class Yocto(BuildCase):
    @classmethod
    def build(cls):
        cls.built = {}
        work = cls.work / "work"
        work.mkdir()
        for features in ("sysvinit", "systemd"):
            recipe = Recipe(next(cls.recipes.glob("yocto/recipes-core/runeld/runeld_*.bb")),
                            DISTRO_FEATURES=features, RUNELD_OPTIONS="-i 127.0.0.9")
            if not cls.built:
                recipe.fetch_and_unpack(work)
                recipe.compile()
                first = recipe
            recipe.values.update({name: first.values[name] for name in ("S", "B")})
            recipe.values["D"] = str(cls.work / f"image-{features}")
            recipe.install()
            cls.built[features] = pathlib.Path(recipe.values["D"])

    def test_sysvinit_gets_the_script(self):
        self.assertEqual(files(self.built["sysvinit"]), COMMON - {f"/{UNIT}"} | {"/etc/init.d/runeld"})
        since = self.log.mark()
        self.check_runs(self.image(self.built["sysvinit"]), "/etc/init.d/runeld")
        self.log.wait_for(" address = 127.0.0.9", since=since)

    def test_systemd_gets_the_unit(self):
        self.assertEqual(files(self.built["systemd"]), COMMON)
        self.assertIn("\nExecStartPre=+/usr/lib/runeld/runeld-guard\n",
                      (self.built["systemd"] / UNIT).read_text("utf-8"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
