# SPDX-License-Identifier: Apache-2.0
"""A stub of BitBake for one recipe: parses it, expands its variables, and runs its tasks with the settings of
the classes that it inherits.

It knows the syntax that the recipe uses and refuses everything else: assignments (=, ?=, .=, +=), the
override :append of functions, `inherit`, shell functions, ${NAME} and ${@PYTHON}.
"""
import pathlib
import re
import shlex
import shutil
import subprocess
import types

ASSIGNMENT = re.compile(
    r'([A-Z_a-z][\w.\-${}]*(?::[\w${}]+)*(?:\[\w+\])?)\s*(\?=|\.=|\+=|=)\s*"(.*)"', re.DOTALL)
FUNCTION = re.compile(r"([a-z_]+)(?::(append))?\(\) \{")

# What bitbake.conf and the classes set, for a device without multilib.
BASE = {"prefix": "/usr", "sysconfdir": "/etc", "sbindir": "/usr/sbin", "libdir": "/usr/lib",
        "nonarch_libdir": "/usr/lib", "systemd_unitdir": "/usr/lib/systemd",
        "systemd_system_unitdir": "/usr/lib/systemd/system",
        "DISTRO_FEATURES": "sysvinit"}
UNITS = BASE["systemd_system_unitdir"].lstrip("/")
CLASSES = {"cmake", "systemd", "update-rc.d"}


def contains(name, words, yes, no, data):
    """bb.utils.contains"""
    return yes if set(words.split()) <= set((data.getVar(name) or "").split()) else no


class Recipe:
    """The recipe NAME_VERSION.bb at @p path. `settings` are those of local.conf."""

    def __init__(self, path, **settings):
        path = pathlib.Path(path)
        name, version = path.stem.rsplit("_", 1)
        self.values = {**BASE, "PN": name, "PV": version, "BP": f"{name}-{version}", **settings}
        self.functions, self.inherits = {}, []
        lines = path.read_text("utf-8").split("\n")
        while lines:
            self._statement(lines)
        unknown = set(self.inherits) - CLASSES
        assert not unknown, f"the stub lacks the classes {unknown}"

    def _statement(self, lines):
        line = lines.pop(0)
        if not line or line.startswith("#"):
            return
        if FUNCTION.fullmatch(line):
            body = []
            while lines[0] != "}":
                body.append(lines.pop(0))
            lines.pop(0)
            self.functions[line[:line.index("(")]] = "\n".join(body)
            return
        if line.startswith("inherit "):
            self.inherits += line.split()[1:]
            return
        while line.endswith("\\"):
            line = line[:-1] + lines.pop(0)
        match = ASSIGNMENT.fullmatch(line)
        assert match, f"not BitBake's syntax: {line!r}"
        name, operator, value = match.groups()
        assert '"' not in value, line
        old = self.values.get(name, "")
        if operator == "?=":
            self.values.setdefault(name, value)
        elif operator == "=":
            self.values[name] = value
        else:
            self.values[name] = old + (" " if operator == "+=" else "") + value

    def expand(self, text):
        """@p text with all variables and Python expressions replaced."""
        def python(match):
            scope = {"d": self, "bb": types.SimpleNamespace(utils=types.SimpleNamespace(contains=contains))}
            return str(eval(match[1], scope))  # the recipe's own text
        previous = None
        while previous != text:
            previous = text
            text = re.sub(r"\$\{@(.*?)\}", python, text)
            text = re.sub(r"\$\{([A-Za-z]\w*)\}", lambda match: self.values.get(match[1], match[0]), text)
        return text

    def getVar(self, name):  # pylint: disable=invalid-name
        """As BitBake's data object has it."""
        value = self.values.get(name, self.values.get(f"{name}:${{PN}}"))
        return None if value is None else self.expand(value)

    def run(self, name, script):
        done = subprocess.run(["sh", "-e", "-c", script], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, check=False)
        assert done.returncode == 0, f"{name} ended with {done.returncode}:\n{done.stdout}"

    def fetch_and_unpack(self, work):
        """Sets S, B and D below @p work. Checks the checksums of the archive and of the licence."""
        work = pathlib.Path(work)
        url = self.getVar("SRC_URI")
        assert url.startswith("file:///"), f"the stub gets files only, not {url}"
        archive = url[len("file://"):]
        self.values.update(WORKDIR=str(work), S=f"{work}/{self.getVar('BP')}", B=f"{work}/build",
                           D=f"{work}/image")
        for name in ("B", "D"):
            pathlib.Path(self.values[name]).mkdir()
        self.run("do_fetch", f"echo '{self.values['SRC_URI[sha256sum]']}  {archive}' | sha256sum -c -")
        self.run("do_unpack", f"tar -xzf '{archive}' -C '{work}'")
        licence = re.fullmatch(r"file://(\S+);md5=([0-9a-f]{32})", self.getVar("LIC_FILES_CHKSUM"))
        self.run("do_populate_lic", f"cd {self.values['S']} && echo '{licence[2]}  {licence[1]}' | md5sum -c -")

    def compile(self):
        """The tasks do_configure and do_compile of cmake.bbclass, for this machine."""
        options = shlex.split(self.getVar("EXTRA_OECMAKE"))
        settings = ["-DCMAKE_INSTALL_PREFIX:PATH=/usr", "-DCMAKE_INSTALL_BINDIR:PATH=bin",
                    "-DCMAKE_INSTALL_SBINDIR:PATH=sbin", "-DCMAKE_INSTALL_LIBEXECDIR:PATH=libexec",
                    "-DCMAKE_INSTALL_SYSCONFDIR:PATH=/etc", "-DCMAKE_INSTALL_SHAREDSTATEDIR:PATH=../com",
                    "-DCMAKE_INSTALL_LOCALSTATEDIR:PATH=/var", "-DCMAKE_INSTALL_LIBDIR:PATH=lib",
                    "-DCMAKE_INSTALL_INCLUDEDIR:PATH=include", "-DCMAKE_INSTALL_DATAROOTDIR:PATH=share"]
        command = ["cmake", "-G", "Ninja", "-S", self.values["S"], "-B", self.values["B"], *settings, *options]
        self.run("do_configure", shlex.join(command))
        self.run("do_compile", shlex.join(["cmake", "--build", self.values["B"], "--", "-j2"]))

    def install(self):
        """cmake.bbclass's do_install, what the recipe appends, and systemd.bbclass's removal of files."""
        self.run("do_install", f"DESTDIR='{self.values['D']}' cmake --install '{self.values['B']}'")
        self.finish_install()

    def finish_install(self):
        self.run("do_install:append", self.expand(self.functions["do_install:append"]))
        image, features = pathlib.Path(self.values["D"]), self.getVar("DISTRO_FEATURES").split()
        assert "systemd" in self.inherits
        if "systemd" not in features:
            shutil.rmtree(image / self.values["systemd_unitdir"].lstrip("/"))
        elif "sysvinit" not in features and any((image / UNITS).iterdir()):
            shutil.rmtree(image / "etc/init.d")
