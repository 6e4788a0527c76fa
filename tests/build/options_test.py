# SPDX-License-Identifier: Apache-2.0
"""Checks that each build option has its documented default and its effect.

    python3 -B options_test.py CMAKE [C_COMPILER CXX_COMPILER]

Only configures; compiles nothing.
"""
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
ROW = re.compile(r"^\| `(\w+)` \| (?:`(.*?)` )?\| (?:`(.*?)` )?\| (.+) \|$", re.MULTILINE)


def documented():
    """The rows of the table: name, default, default of the smallest build."""
    with open(os.path.join(ROOT, "docs/build.md"), encoding="utf-8") as text:
        return {name: (default, minimal) for name, default, minimal, _ in ROW.findall(text.read())}


class Configured:
    """One configured build directory."""

    def __init__(self, *settings, fails=False):
        self.directory = tempfile.TemporaryDirectory(prefix="runeld-options.")
        command = [CMAKE, "-G", "Ninja", "-S", ROOT, "-B", self.directory.name,
                   "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *COMPILERS,
                   *(f"-D{setting}" for setting in settings)]
        clean = {name: value for name, value in os.environ.items()
                 if name not in ("CMAKE_BUILD_TYPE", "CFLAGS", "CXXFLAGS", "LDFLAGS")}
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False, env=clean)
        self.output = done.stdout
        assert (done.returncode != 0) == fails, f"{command}: {done.returncode}\n{self.output}"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.directory.cleanup()

    def text(self, name):
        with open(os.path.join(self.directory.name, name), encoding="utf-8") as file:
            return file.read()

    def cache(self):
        """The values of the cache that a user may set."""
        found = re.findall(r"^(\w+):(?!INTERNAL)\w+=(.*)$", self.text("CMakeCache.txt"), re.MULTILINE)
        return dict(found)

    def commands(self):
        """The arguments of the compiler for each source, by its path in the tree."""
        commands = json.loads(self.text("compile_commands.json"))
        return {os.path.relpath(entry["file"], ROOT): shlex.split(entry["command"])
                for entry in commands}

    def sources(self):
        return set(self.commands())

    def installed(self):
        """What `cmake --install` would run."""
        found = ""
        for place, _, names in os.walk(self.directory.name):
            if "cmake_install.cmake" in names:
                found += self.text(os.path.join(place, "cmake_install.cmake"))
        return found


def has_any(sources, start):
    return any(name.startswith(start) for name in sources)


class Documented(unittest.TestCase):
    def test_the_table_has_every_option_with_its_default(self):
        with Configured() as build:
            cache = build.cache()
        options = {name: value for name, value in cache.items()
                   if name.startswith("RUNELD_") or name == "BUILD_TESTING"}
        self.assertEqual({name: row[0] for name, row in documented().items()}, options)
        self.assertEqual(cache["CMAKE_BUILD_TYPE"], "Release")

    def test_the_smallest_build_has_the_defaults_of_its_column(self):
        expected = {name: minimal or default for name, (default, minimal) in documented().items()}
        with Configured("RUNELD_MINIMAL=ON") as build:
            cache, commands = build.cache(), build.commands()
            installed = build.installed()
        self.assertEqual(expected, {name: cache[name] for name in expected})
        self.assertFalse([name for name in commands if not name.startswith(("src/", "lib/"))])
        self.assertNotIn("/man8", installed)
        for source, arguments in commands.items():
            levels = [argument for argument in arguments if argument.startswith("-O")]
            self.assertEqual(levels[-1], "-Os", source)

    def test_a_given_option_is_stronger_than_the_smallest_build(self):
        with Configured("RUNELD_MINIMAL=ON", "RUNELD_CLIENT=ON", "RUNELD_PROMPT=ON") as build:
            sources = build.sources()
        self.assertTrue(has_any(sources, "client/core/"))
        self.assertIn("src/connections/plain_slave.cc", sources)
        self.assertFalse(has_any(sources, "tests/"))

    def test_a_given_build_type_and_that_of_a_preset_are_kept(self):
        with Configured("CMAKE_BUILD_TYPE=Debug", "BUILD_TESTING=OFF") as build:
            self.assertEqual(build.cache()["CMAKE_BUILD_TYPE"], "Debug")
            self.assertNotIn("-O3", build.commands()["src/main/main.cc"])
        with open(os.path.join(ROOT, "CMakePresets.json"), encoding="utf-8") as file:
            presets = json.load(file)["configurePresets"]
        for preset in presets:
            if not preset.get("hidden"):
                self.assertTrue(preset["cacheVariables"].get("CMAKE_BUILD_TYPE"), preset["name"])


class Values(unittest.TestCase):
    """Options with a value reach the source that uses them, and no other source."""

    WANTED = {
        "RUNELD_DEVICE_PORT": ("6111", "src/agent/settings.cc"),
        "RUNELD_MASTER_PORT": ("6112", "src/agent/settings.cc"),
        "RUNELD_PID_FILE": ("/run/other.pid", "src/agent/settings.cc"),
        "RUNELD_HOSTS_FILE": ("/run/other hosts", "src/agent/settings.cc"),
        "RUNELD_MASTER": ("192.0.2.7", "src/main/options.cc"),
        "RUNELD_STATE_DIR": ("/run/state", "lib/device/linux/um_state.cc"),
        "RUNELD_LED_FIRST": ("/run/one", "lib/device/linux/leds.cc"),
        "RUNELD_LED_SECOND": ("/run/two", "lib/device/linux/leds.cc"),
    }

    def test_each_reaches_its_source(self):
        given = [f"{name}={value}" for name, (value, _) in self.WANTED.items()]
        with Configured(*given, "BUILD_TESTING=OFF", "RUNELD_CTL=OFF") as build:
            commands = build.commands()
        for name, (value, source) in self.WANTED.items():
            quoted = value if value.isdigit() else f'"{value}"'
            using = [where for where, arguments in commands.items()
                     if f"-D{name}={quoted}" in arguments]
            self.assertEqual(using, [source], name)

    def test_the_ports_and_the_master_reach_the_check_of_protections(self):
        with Configured("RUNELD_DEVICE_PORT=6111", "RUNELD_MASTER_PORT=6112", "RUNELD_MASTER=192.0.2.7",
                        "BUILD_TESTING=OFF", "RUNELD_CTL=OFF") as build:
            text = build.text("runeld-protect")
        with open(os.path.join(ROOT, "packaging/protection/runeld-protect"), encoding="utf-8") as file:
            original = file.read()
        changed = [line for line in text.splitlines() if line not in original.splitlines()]
        self.assertEqual(changed, ["device_port=6111", "master_port=6112", "default_master=192.0.2.7"])

    def test_the_directory_of_the_service_file(self):
        with Configured("RUNELD_UNIT_DIR=usr/lib/units", "BUILD_TESTING=OFF", "RUNELD_CTL=OFF") as build:
            self.assertIn("usr/lib/units", build.installed())

    def test_the_options_of_the_service_are_where_the_unit_reads_them(self):
        with Configured("CMAKE_INSTALL_PREFIX=/usr", "BUILD_TESTING=OFF", "RUNELD_CTL=OFF") as build:
            self.assertIn("EnvironmentFile=-/etc/default/runeld\n", build.text("runeld.service"))
            self.assertIn('DESTINATION "/etc/default"', build.installed())

    def test_values_that_cannot_work_are_refused(self):
        for setting in ("RUNELD_DEVICE_PORT=0", "RUNELD_DEVICE_PORT=65536", "RUNELD_MASTER_PORT=http",
                        "RUNELD_MASTER_PORT=051", "RUNELD_PID_FILE=run/x.pid", "RUNELD_HOSTS_FILE=",
                        'RUNELD_STATE_DIR=/a"b', "RUNELD_LED_FIRST=/", "RUNELD_MASTER=", "RUNELD_MASTER=a b"):
            with self.subTest(setting), Configured(setting, fails=True) as build:
                self.assertIn(f"{setting.partition('=')[0]} is a", build.output)


class Parts(unittest.TestCase):
    """Options that are on or off."""

    def test_the_prompt_handler(self):
        with Configured() as build:
            sources = build.sources()
        self.assertIn("src/connections/plain_slave.cc", sources)
        self.assertIn("tests/unit/connections/plain_slave_test.cc", sources)
        with Configured("RUNELD_PROMPT=OFF") as build:
            sources = build.sources()
        self.assertFalse([name for name in sources if "plain_slave" in name])
        self.assertIn("tests/unit/connections/xml_slave_test.cc", sources)

    def test_client_runelctl_tests_and_documents(self):
        with Configured("BUILD_TESTING=OFF") as build:
            sources, installed = build.sources(), build.installed()
        self.assertTrue(has_any(sources, "client/") and has_any(sources, "runelctl/"))
        self.assertFalse(has_any(sources, "tests/"))
        self.assertTrue("runeld.8" in installed and "runelctl.1" in installed)
        with Configured("BUILD_TESTING=OFF", "RUNELD_CTL=OFF", "RUNELD_DOCS=OFF") as build:
            sources, installed = build.sources(), build.installed()
        self.assertTrue(has_any(sources, "client/"))
        self.assertFalse(has_any(sources, "runelctl/"))
        self.assertFalse("runeld.8" in installed or "protocol.md" in installed)
        self.assertIn("runeld.service", installed)
        with Configured("BUILD_TESTING=OFF", "RUNELD_CLIENT=OFF") as build:
            sources, installed = build.sources(), build.installed()
        self.assertFalse(has_any(sources, "client/") or has_any(sources, "runelctl/"))
        self.assertNotIn("runelctl.1", installed)
        with Configured("RUNELD_CLIENT=OFF", "RUNELD_CTL=ON", fails=True) as build:
            self.assertIn("runelctl cannot be built without the client library", build.output)

    def test_warnings_instrumentation_and_batches(self):
        source = "src/main/main.cc"
        quick = ("BUILD_TESTING=OFF",)
        with Configured(*quick) as build:
            plain = build.commands()
        for unwanted in ("-Werror", "--coverage", "-fsanitize=undefined", "-fsanitize=fuzzer-no-link"):
            self.assertNotIn(unwanted, plain[source])
        with Configured(*quick, "RUNELD_WERROR=ON", "RUNELD_COVERAGE=ON", "RUNELD_UNITY=ON",
                        "RUNELD_SANITIZE=undefined") as build:
            changed = build.commands()
        for wanted in ("-Werror", "--coverage", "-fsanitize=undefined"):
            self.assertIn(wanted, changed[source])
        self.assertLess(len(changed), len(plain) - 30, "runelctl is not compiled in batches")
        with Configured(*quick, "RUNELD_CTL=OFF", "RUNELD_FUZZ=ON") as build:
            self.assertIn("-fsanitize=fuzzer-no-link", build.commands()[source])


if __name__ == "__main__":
    CMAKE = sys.argv[1]
    COMPILERS = [f"-DCMAKE_{language}_COMPILER={path}"
                 for language, path in zip(("C", "CXX"), sys.argv[2:4])]
    unittest.main(argv=sys.argv[:1], verbosity=2)
