# SPDX-License-Identifier: Apache-2.0
"""The recipes for Buildroot, OpenWrt and Yocto without a build: their syntax, their settings, and what they
refuse. recipe_builds_test.py builds with them.
"""
import hashlib
import pathlib
import re
import subprocess
import sys
import tarfile
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
sys.path.insert(0, str(HERE / "recipes"))

from bitbake import Recipe  # noqa: E402
from install_document import PLACES, blocks  # noqa: E402

KCONFIG = """
import sys
import kconfiglib
kconfig = kconfiglib.Kconfig("Config.in", warn_to_stderr=False)
assert not kconfig.warnings, kconfig.warnings
for setting in sys.argv[1:]:
    name, value = setting.split("=", 1)
    assert kconfig.syms[name].set_value(value)
for name in ("RUNELD", "RUNELD_ENABLE", "RUNELD_OPTIONS"):
    symbol = kconfig.syms["BR2_PACKAGE_" + name]
    print(symbol.visibility > 0, repr(symbol.str_value))
"""
# The symbols of Buildroot that the package depends on.
BUILDROOT = "".join(f'config {name}\n\tbool "{name}"\n' for name in
                    ("BR2_USE_MMU", "BR2_INSTALL_LIBSTDCPP", "BR2_TOOLCHAIN_GCC_AT_LEAST_8"))
TOOLCHAIN = ["BR2_USE_MMU=y", "BR2_INSTALL_LIBSTDCPP=y", "BR2_TOOLCHAIN_GCC_AT_LEAST_8=y"]


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                          **options)


class RecipesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.release = pathlib.Path(directory.name) / "release"
        done = run(ROOT / "scripts/release", cls.release)
        assert done.returncode == 0, done.stdout
        cls.tarball = next(cls.release.glob("runeld-*.tar.gz"))
        cls.version = re.fullmatch(r"runeld-(.*)\.tar\.gz", cls.tarball.name)[1]
        cls.sum = hashlib.sha256(cls.tarball.read_bytes()).hexdigest()
        cls.buildroot = cls.release / "recipes/buildroot"
        cls.openwrt = cls.release / "recipes/openwrt/runeld"
        cls.yocto = cls.release / f"recipes/yocto/recipes-core/runeld/runeld_{cls.version}.bb"

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.work = pathlib.Path(directory.name)

    def another_tarball(self, recipe):
        """Lets the text of @p recipe get a tarball that is not the release."""
        (self.work / "site").mkdir()
        with tarfile.open(self.work / "site" / self.tarball.name, "w:gz") as archive:
            archive.add(ROOT / "LICENSE", f"runeld-{self.version}/LICENSE")
        return recipe.replace(f"file://{self.release}", f"file://{self.work}/site")

    def test_no_placeholder_is_left(self):
        for path in (self.release / "recipes").rglob("*"):
            if path.is_file():
                self.assertNotRegex(path.read_text("utf-8"), r"@[A-Z0-9_]+@", path)

    def test_each_block_of_the_install_document_is_run_by_a_test(self):
        self.assertEqual({place for place, _ in blocks(*PLACES)}, set(PLACES))
        tests = [(ROOT / path).read_text("utf-8") for path in
                 ("tests/packaging/install_document_test.py", "tests/images/test_install_document.py")]
        for place in PLACES:
            self.assertTrue(any(f'"{place}"' in text for text in tests), place)

    # Buildroot

    def make_buildroot(self, target, external=None):
        return run("make", "-f", HERE / "recipes/buildroot.mk", f"OUTPUT={self.work}/output",
                   f"BR2_EXTERNAL_RUNELD_PATH={external or self.buildroot}", target)

    def test_buildroot_reads_the_package(self):
        self.assertEqual(self.make_buildroot("show").stdout.splitlines(),
                         [self.version, f"file://{self.release}/{self.tarball.name}", "Apache-2.0"])

    def test_buildroot_refuses_another_tarball(self):
        package = self.work / "external/package/runeld"
        package.mkdir(parents=True)
        (self.work / "external/external.mk").write_text(
            (self.buildroot / "external.mk").read_text("utf-8"), encoding="utf-8")
        for name in ("runeld.mk", "runeld.hash"):
            text = (self.buildroot / "package/runeld" / name).read_text("utf-8")
            (package / name).write_text(self.another_tarball(text) if name == "runeld.mk" else text,
                                        encoding="utf-8")
        done = self.make_buildroot("target", self.work / "external")
        self.assertEqual(done.returncode, 2)
        self.assertIn(f"{self.tarball.name}: FAILED", done.stdout)

    def kconfig(self, *settings):
        """Whether each symbol of the package is visible, and its value."""
        (self.work / "Config.in").write_text(
            f'{BUILDROOT}source "{self.buildroot}/Config.in"\n', encoding="utf-8")
        done = run("/usr/bin/python3", "-c", KCONFIG, *settings, cwd=self.work,
                   env={"BR2_EXTERNAL_RUNELD_PATH": str(self.buildroot), "PATH": "/usr/bin:/bin"})
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout.splitlines()

    def test_buildroot_offers_the_package_with_a_suitable_toolchain_only(self):
        self.assertEqual(self.kconfig(*TOOLCHAIN)[0], "True 'n'")
        for missing in TOOLCHAIN:
            settings = [setting for setting in TOOLCHAIN if setting != missing]
            self.assertEqual(self.kconfig(*settings)[0], "False 'n'", missing)

    def test_buildroot_does_not_start_it_at_boot_by_default(self):
        self.assertEqual(self.kconfig(*TOOLCHAIN, "BR2_PACKAGE_RUNELD=y"),
                         ["True 'y'", "True 'n'", "True ''"])
        self.assertEqual(self.kconfig(*TOOLCHAIN), ["True 'n'", "False 'n'", "False ''"])

    # OpenWrt

    def make_openwrt(self, target, package=None):
        return run("make", "--no-print-directory", "-C", package or self.openwrt,
                   f"TOPDIR={HERE}/recipes/openwrt", f"OUTPUT={self.work}/output", target)

    def test_openwrt_reads_the_package(self):
        shown = self.make_openwrt("show").stdout.splitlines()
        self.assertEqual(shown[:5], [self.version, f"file://{self.release}/{self.tarball.name}", self.sum,
                                     "Apache-2.0", "Device daemon of an update manager"])
        self.assertEqual(shown[5:7], ["+libstdcpp", "/etc/config/runeld"])
        self.assertIn("no authentication", shown[7])

    def test_openwrt_refuses_another_tarball(self):
        package = self.work / "package"
        package.mkdir()
        text = (self.openwrt / "Makefile").read_text("utf-8")
        (package / "Makefile").write_text(self.another_tarball(text), encoding="utf-8")
        done = self.make_openwrt("compile", package)
        self.assertEqual(done.returncode, 2)
        self.assertIn(f"{self.tarball.name}: FAILED", done.stdout)

    def test_openwrt_gets_all_files_of_the_service(self):
        names = {path.name for path in (self.openwrt / "files").iterdir()}
        used = set(re.findall(r"\./files/(\S+)", (self.openwrt / "Makefile").read_text("utf-8")))
        self.assertEqual(used, names)

    # Yocto

    def test_yocto_reads_the_recipe(self):
        recipe = Recipe(self.yocto)
        self.assertEqual(recipe.inherits, ["cmake", "systemd", "update-rc.d"])
        self.assertEqual(recipe.getVar("LICENSE"), "Apache-2.0")
        self.assertEqual(recipe.getVar("SRC_URI"), f"file://{self.release}/{self.tarball.name}")
        self.assertEqual(recipe.values["SRC_URI[sha256sum]"], self.sum)
        self.assertEqual(recipe.getVar("SYSTEMD_SERVICE"), "runeld.service")
        self.assertEqual(recipe.getVar("INITSCRIPT_NAME"), "runeld")
        self.assertEqual(recipe.getVar("FILES").split(), ["/usr/lib/runeld"])
        self.assertEqual(recipe.getVar("CONFFILES"), "/etc/default/runeld")

    def test_yocto_does_not_start_it_at_boot_by_default(self):
        recipe = Recipe(self.yocto)
        self.assertEqual(recipe.getVar("SYSTEMD_AUTO_ENABLE"), "disable")
        self.assertEqual(recipe.getVar("INITSCRIPT_PARAMS"), "stop 05 0 1 6 .")
        recipe = Recipe(self.yocto, RUNELD_ENABLE="1")
        self.assertEqual(recipe.getVar("SYSTEMD_AUTO_ENABLE"), "enable")
        self.assertEqual(recipe.getVar("INITSCRIPT_PARAMS"), "defaults 95 05")

    def test_yocto_refuses_another_tarball_and_another_licence(self):
        text = self.yocto.read_text("utf-8")
        path = self.work / self.yocto.name
        other_licence = re.sub(";md5=.", lambda match: ";md5=" + "01"[match[0].endswith("0")], text)
        for changed, task in ((self.another_tarball(text), "do_fetch"), (other_licence, "do_populate_lic")):
            path.write_text(changed, encoding="utf-8")
            (self.work / task).mkdir()
            with self.assertRaisesRegex(AssertionError, f"{task} ended with"):
                Recipe(path).fetch_and_unpack(self.work / task)

    def test_yocto_installs_the_files_of_the_init_system(self):
        for features, names in (("sysvinit", ["/etc/default/runeld", "/etc/init.d/runeld"]),
                                ("systemd", ["/etc/default/runeld", "/usr/lib/systemd/system/runeld.service"]),
                                ("systemd sysvinit", ["/etc/default/runeld", "/etc/init.d/runeld",
                                                      "/usr/lib/systemd/system/runeld.service"])):
            work = self.work / features.replace(" ", "-")
            work.mkdir()
            recipe = Recipe(self.yocto, DISTRO_FEATURES=features, RUNELD_OPTIONS="-i 192.0.2.7")
            recipe.fetch_and_unpack(work)
            image = pathlib.Path(recipe.values["D"])
            unit = image / "usr/lib/systemd/system/runeld.service"
            unit.parent.mkdir(parents=True)
            unit.write_text("", encoding="utf-8")  # as CMake installs them
            (image / "etc/default").mkdir(parents=True)
            (image / "etc/default/runeld").write_text("# settings\n", encoding="utf-8")
            recipe.finish_install()
            found = sorted(f"/{path.relative_to(image)}" for path in image.rglob("*") if path.is_file())
            self.assertEqual(found, names, features)
            defaults = (image / "etc/default/runeld").read_text("utf-8").splitlines()
            self.assertEqual(defaults, ["# settings", 'RUNELD_OPTIONS="-i 192.0.2.7"'])

    def test_the_layer_is_one(self):
        text = (self.release / "recipes/yocto/conf/layer.conf").read_text("utf-8")
        for line in text.splitlines():
            self.assertRegex(line, r'^(#.*|[A-Za-z_]+ (=|\+=|\.=) "[^"]*")$')


if __name__ == "__main__":
    unittest.main(verbosity=2)
