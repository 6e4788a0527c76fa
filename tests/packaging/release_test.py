# SPDX-License-Identifier: Apache-2.0
"""Tests of scripts/release: the members of the tarball, its bytes and its checksums.

They run a copy of the script in a small repository. One test makes the tarball of the whole tree.
"""
import gzip
import hashlib
import os
import pathlib
import shutil
import subprocess
import tarfile
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
COMMITTED = 1700000000  # the time of the commit in the small repository
FILES = {"CMakeLists.txt": "project(runeld VERSION 3.2.1 DESCRIPTION x LANGUAGES C CXX)\n",
         "LICENSE": "a licence\n", "src/main.cc": "int main() {}\n", "src/a-b.cc": "\n",
         ".hidden": "settings\n", "packaging/buildroot/a.mk": "V = @VERSION@ @SHA256@ @SITE@\n",
         "packaging/openwrt/Makefile": "@LICENSE_MD5@ @LICENSE_SHA256@\n",
         "packaging/openwrt/files/x": "x\n",
         "packaging/yocto/recipes-core/runeld/runeld.bb": "@SHA256@ @SHA256@\n"}
NAMES = ["runeld-3.2.1.tar.gz", "runeld-3.2.1.tar.xz"]


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                          **options)


def make_repository(directory):
    """A repository with FILES and the script, all in one commit."""
    for name, text in FILES.items():
        (directory / name).parent.mkdir(parents=True, exist_ok=True)
        (directory / name).write_text(text, encoding="utf-8")
    (directory / "scripts").mkdir()
    shutil.copy(ROOT / "scripts/release", directory / "scripts/release")
    date = f"{COMMITTED} +0300"
    environment = {**os.environ, "GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date,
                   "GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1"}
    git = ["git", "-C", directory, "-c", "user.name=a", "-c", "user.email=a@example.com"]
    for command in (["init", "-q"], ["add", "."], ["commit", "-q", "-m", "all"]):
        subprocess.run([*git, *command], env=environment, check=True)


class ReleaseTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.top = pathlib.Path(directory.name)
        self.source = self.top / "source"
        make_repository(self.source)

    def release(self, source=None, target="out", options=(), **environment):
        """Runs the script. Returns the bytes of each file that it wrote, and its standard error."""
        source = source or self.source
        done = run(source / "scripts/release", *options, self.top / target,
                   env={**os.environ, **environment})
        self.assertEqual(done.returncode, 0, done.stderr)
        written = {path.name: path.read_bytes() for path in (self.top / target).iterdir() if path.is_file()}
        self.assertEqual(done.stdout.splitlines(),
                         [str(self.top / target / name) for name in [*NAMES, "SHA256SUMS"]])
        return written, done.stderr

    def members(self, name):
        with tarfile.open(self.top / "out" / name) as archive:
            return archive.getmembers()

    def test_it_writes_two_tarballs_with_the_version_and_their_checksums(self):
        written, errors = self.release()
        self.assertEqual(sorted(written), ["SHA256SUMS", *NAMES])
        self.assertEqual(written["SHA256SUMS"].decode(), "".join(
            f"{hashlib.sha256(written[name]).hexdigest()}  {name}\n" for name in NAMES))
        self.assertEqual(errors, "")

    def test_it_has_all_committed_files_below_one_directory(self):
        self.release()
        expected = {f"runeld-3.2.1/{name}": text for name, text in FILES.items()}
        expected["runeld-3.2.1/scripts/release"] = (ROOT / "scripts/release").read_text("utf-8")
        for name in NAMES:
            with tarfile.open(self.top / "out" / name) as archive:
                files = {member.name: archive.extractfile(member).read().decode()
                         for member in archive.getmembers() if member.isfile()}
            self.assertEqual(files, expected)

    def test_members_have_the_commit_time_and_belong_to_root(self):
        self.release()
        for name in NAMES:
            members = self.members(name)
            self.assertEqual({(member.mtime, member.uid, member.gid) for member in members},
                             {(COMMITTED, 0, 0)})
            self.assertEqual({oct(member.mode) for member in members if member.isdir()}, {"0o755"})
            modes = {member.name: oct(member.mode) for member in members if member.isfile()}
            self.assertEqual(modes.pop("runeld-3.2.1/scripts/release"), "0o755")
            self.assertEqual(set(modes.values()), {"0o644"})

    def test_both_have_the_same_members_in_the_same_order(self):
        self.release()
        first, second = ([member.name for member in self.members(name)] for name in NAMES)
        self.assertEqual(first, second)
        self.assertEqual(len(first), len(set(first)))

    def test_gzip_stores_neither_a_name_nor_a_time(self):
        header = self.release()[0][NAMES[0]][:10]
        self.assertEqual(header[:3], b"\x1f\x8b\x08")
        self.assertEqual(header[3], 0, "flags: no name, no comment")
        self.assertEqual(header[4:8], bytes(4), "time")

    def test_the_tarball_names_its_commit(self):
        data = gzip.decompress(self.release()[0][NAMES[0]])
        done = subprocess.run(["git", "get-tar-commit-id"], input=data, stdout=subprocess.PIPE, check=True)
        head = run("git", "-c", "safe.directory=*", "-C", self.source, "rev-parse", "HEAD").stdout
        self.assertEqual(done.stdout.decode(), head)

    def test_the_bytes_do_not_depend_on_directory_settings_or_environment(self):
        expected = self.release()[0]
        other = self.top / "a/much/longer/path"
        shutil.copytree(self.source, other)  # the copies have other times
        settings = self.top / "gitconfig"
        settings.write_text("[tar]\n\tumask = 0077\n[core]\n\tautocrlf = true\n[user]\n\tname = b\n",
                            encoding="utf-8")
        for name in FILES:
            os.utime(other / name, (1, 1))
        found = self.release(other, "second", TZ="Pacific/Auckland", LC_ALL="C.UTF-8", LANG="de_DE",
                             GIT_CONFIG_GLOBAL=str(settings), GZIP="-1", XZ_DEFAULTS="-1", USER="someone",
                             HOME=str(self.top))[0]
        self.assertEqual(found, expected)

    def test_the_bytes_do_not_depend_on_the_umask(self):
        expected = self.release()[0]
        old = os.umask(0o077)
        self.addCleanup(os.umask, old)
        self.assertEqual(self.release(target="second")[0], expected)

    def test_uncommitted_changes_are_left_out_and_reported(self):
        expected = self.release()[0]
        (self.source / "LICENSE").write_text("changed\n", encoding="utf-8")
        found, errors = self.release(target="second")
        self.assertEqual(found, expected)
        self.assertEqual(errors, "release: uncommitted changes are left out\n")

    def recipes(self):
        top = self.top / "out/recipes"
        return {str(path.relative_to(top)): path.read_text("utf-8") for path in top.rglob("*")
                if path.is_file()}

    def test_the_recipes_have_the_version_the_checksums_and_the_directory(self):
        written = self.release()[0]
        tarball = hashlib.sha256(written[NAMES[0]]).hexdigest()
        licence = FILES["LICENSE"].encode()
        self.assertEqual(self.recipes(), {
            "buildroot/a.mk": f"V = 3.2.1 {tarball} file://{self.top}/out\n",
            "openwrt/runeld/Makefile":
                f"{hashlib.md5(licence).hexdigest()} {hashlib.sha256(licence).hexdigest()}\n",
            "openwrt/runeld/files/x": "x\n",
            "yocto/recipes-core/runeld/runeld_3.2.1.bb": f"{tarball} {tarball}\n"})

    def test_the_recipes_get_the_tarball_from_the_given_site(self):
        expected = self.release()[0]
        found = self.release(options=["--site", "https://files.example.com/a"])[0]
        self.assertEqual(found, expected)
        self.assertIn(" https://files.example.com/a\n", self.recipes()["buildroot/a.mk"])

    def test_recipes_of_an_earlier_run_are_replaced(self):
        self.release()
        (self.top / "out/recipes/old").write_text("old\n", encoding="utf-8")
        self.release()
        self.assertNotIn("old", self.recipes())

    def test_an_unknown_option_is_refused(self):
        done = run(self.source / "scripts/release", "--sign")
        self.assertEqual((done.returncode, done.stderr), (2, "release: unknown option --sign\n"))

    def test_a_tree_without_a_version_is_refused(self):
        (self.source / "CMakeLists.txt").write_text("project(runeld)\n", encoding="utf-8")
        git = ["git", "-c", "safe.directory=*", "-c", "user.name=a", "-c", "user.email=a@example.com", "-C",
               self.source]
        subprocess.run([*git, "commit", "-q", "-a", "-m", "no version"], check=True)
        done = run(self.source / "scripts/release", self.top / "out")
        self.assertEqual((done.returncode, done.stderr), (1, "release: no version in CMakeLists.txt\n"))
        self.assertFalse((self.top / "out").exists())


class WholeTreeTest(unittest.TestCase):
    def test_the_tarball_of_this_tree_configures_without_git(self):
        with tempfile.TemporaryDirectory() as name:
            top = pathlib.Path(name)
            done = run(ROOT / "scripts/release", top / "out")
            self.assertEqual(done.returncode, 0, done.stderr)
            tarball = next((top / "out").glob("runeld-*.tar.gz"))
            shutil.unpack_archive(tarball, top)
            source = top / tarball.name[:-len(".tar.gz")]
            (top / "bin").mkdir()
            (top / "bin/git").symlink_to("/bin/false")
            environment = {**os.environ, "PATH": f"{top}/bin:{os.environ['PATH']}"}
            done = run("cmake", "-S", source, "-B", top / "build", "-G", "Ninja", "-DBUILD_TESTING=OFF",
                       "-DRUNELD_CTL=OFF", env=environment)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            done = run("cmake", "--install", top / "build", "--component", "documents", "--prefix",
                       top / "prefix", env=environment)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            self.assertTrue((top / "prefix/share/man/man8/runeld.8").is_file())


if __name__ == "__main__":
    unittest.main(verbosity=2)
