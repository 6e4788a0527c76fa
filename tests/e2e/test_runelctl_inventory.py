# SPDX-License-Identifier: Apache-2.0
"""The inventory: which devices a command line selects, and their defaults."""
import os
import shutil
import unittest

from support.ctl import CtlCase, hang
from support.fakes import FakeDevice
from support.master import MasterCase
from test_runelctl_many import Fakes


class InventoryCase(CtlCase):
    def setUp(self):
        super().setUp()
        self.fakes = Fakes(self)

    def inventory(self, more=""):
        """Writes the user's inventory: gw-01 to gw-06, hall, three groups and two tags."""
        port = self.fakes.port
        text = (f'[devices]\n"gw-[01-06]" = "127.1.0.[1-6]:{port}"\n'
                f'hall = {{ address = "127.1.0.7:{port}", tags = {{ site = "north", spare = true }} }}\n'
                '[groups]\nfirst = ["gw-[01-02]", "hall"]\nlast = ["gw-06"]\n' + more)
        os.makedirs(self.path(".config/runelctl"), exist_ok=True)
        return self.file(".config/runelctl/devices.toml", text.encode())

    def served(self, *words, **options):
        """The devices on which a task ran."""
        objects = self.succeed("--json", *words, "hostid", **options).objects
        return [one["device"] for one in objects if "device" in one]

    def refused(self, *words):
        """The error of a command line that runs nothing."""
        self.fakes.order.clear()
        result = self.ctl(*words, "hostid")
        self.assertEqual((result.status, result.out, len(result.errors), self.fakes.order),
                         (2, b"", 1, []), result)
        return result.errors[0]


class Selection(InventoryCase):
    def assert_serves(self, expected, *words):
        self.assertEqual(sorted(self.served(*words)), sorted(expected), words)

    def test_devices_are_selected_by_name_range_group_and_tag(self):
        self.inventory()
        self.assert_serves(["gw-02"], "-d", "gw-02")
        self.assert_serves(["gw-01", "gw-02", "gw-05", "hall"], "-d", "gw-[01-02,05],hall")
        self.assert_serves(["gw-01", "gw-02", "hall"], "-g", "first")
        self.assert_serves(["gw-01", "gw-02", "gw-06", "hall"], "-g", "first", "--device-group", "last")
        self.assert_serves(["hall"], "--tag", "site=north")
        self.assert_serves(["hall"], "-g", "first", "--tag", "site=north", "--tag", "spare=true")
        self.assert_serves([f"gw-0{number}" for number in range(1, 7)] + ["hall"], "-a")

    def test_names_are_taken_in_the_folded_form_of_a_summary(self):
        self.inventory()
        self.assert_serves(["gw-03", "gw-04", "gw-06"], "-d", "gw-[03-04],gw-06")

    def test_devices_are_left_out(self):
        self.inventory()
        self.assert_serves(["gw-06", "hall"], "-a", "-x", "gw-[01-05]")
        self.assert_serves(["gw-01"], "-g", "first", "--except", f"hall,127.1.0.2:{self.fakes.port}")

    def test_a_device_is_served_once_under_the_first_of_its_names(self):
        self.inventory()
        address = f"127.1.0.7:{self.fakes.port}"
        self.assertEqual(self.served("-d", f"hall,{address}", "-g", "first", "-x", "gw-[01-02]"),
                         ["hall"])
        self.assertEqual(self.served("-d", f"{address},hall"), [address])

    def test_ranges_need_no_inventory(self):
        name = f"127.1.0.[1-3]:{self.fakes.port}"
        self.assert_serves(self.fakes.names(3), "-d", name)
        self.assert_serves(self.fakes.names(2), "-d", name, "-x", self.fakes.name(2))
        self.assert_serves(self.fakes.names(3), "--devices", self.file("list", name.encode()))

    def test_a_file_of_devices_may_have_names_of_the_inventory(self):
        self.inventory()
        listing = f"hall\nroof 127.1.0.9:{self.fakes.port}\ngw-[01-02]\n".encode()
        self.assert_serves(["hall", "roof", "gw-01", "gw-02"], "--devices",
                           self.file("list", listing))

    def test_an_invalid_selection_runs_nothing(self):
        self.inventory()
        for words, why in ((("-g", "frist"), "-g: no group 'frist' (did you mean 'first'?)"),
                           (("--tag", "site"), "--tag: invalid tag 'site': expected KEY=VALUE"),
                           (("-a", "-x", "hal"), "-x: no device 'hal' is selected"),
                           (("-d", "gw-[01-"), "-d: 'gw-[01-': '[' without ']'"),
                           (("-d", "a[1-200000]"), "-d: 'a[1-200000]': more than 100000 names"),
                           (("--tag", "site=south"), "no device matches the selection"),
                           (("-g", "last", "-x", "gw-06"), "no device matches the selection")):
            self.assertEqual(self.refused(*words), "runelctl: " + why, words)

    def test_without_an_inventory_groups_are_refused(self):
        for words in (("-a",), ("-g", "first"), ("--tag", "site=north")):
            self.assertIn(f"no inventory: create {self.directory}/.config/runelctl/devices.toml or "
                          "/etc/runelctl/devices.toml", self.refused(*words))

    def test_a_wrong_line_runs_nothing_and_is_named(self):
        for line, why in (("[groups", ""), ("x = 1", "group x: expected a list of device names"),
                          ('more = ["gw-07"]', "group more: no device 'gw-07'")):
            path = self.inventory(line + "\n")
            for words in (("-a",), ("-d", self.fakes.name(0))):
                self.assertTrue(self.refused(*words).startswith(f"runelctl: {path}:7: {why}"), line)

    def test_the_environment_names_the_usual_devices(self):
        self.inventory()
        self.assertEqual(sorted(self.served(env={"RUNELCTL_DEVICE": "gw-[01-02]"})),
                         ["gw-01", "gw-02"])
        self.assertEqual(self.served("-x", "gw-01", env={"RUNELCTL_DEVICE": "gw-[01-02]"}), ["gw-02"])

    def test_failed_devices_are_stored_with_their_addresses(self):
        self.inventory()
        self.fakes.failing = {self.fakes.name(1)}
        self.ctl("-q", "-g", "first", "--retry-failed", "failed", "hostid")
        self.assertEqual(self.content("failed").decode(), f"gw-02 {self.fakes.name(1)}\n")
        self.fakes.failing = set()
        self.assertEqual(self.served("-g", "first", "--retry-failed", "failed"), ["gw-02"])


class Places(InventoryCase):
    def test_the_file_is_given_or_the_users_or_the_systems(self):
        user = self.inventory()
        given = self.file("given", f'[devices]\nx = "{self.fakes.name(0)}"\n'.encode())
        self.assertEqual(self.served("--inventory", given, "-a"), ["x"])
        os.makedirs(self.path("config/runelctl"))
        shutil.move(user, self.path("config/runelctl/devices.toml"))
        self.assertEqual(len(self.served("-a", env={"XDG_CONFIG_HOME": self.path("config")})), 7)
        os.mkdir("/etc/runelctl")
        self.addCleanup(shutil.rmtree, "/etc/runelctl")
        shutil.copy(given, "/etc/runelctl/devices.toml")
        self.assertEqual(self.served("-a"), ["x"])

    def test_a_file_that_cannot_be_read_runs_nothing(self):
        self.assertEqual(self.refused("--inventory", "none"),
                         "runelctl: none: No such file or directory")
        self.assertEqual(self.refused("--inventory", "."), "runelctl: .: Is a directory")


class Defaults(InventoryCase):
    def test_each_device_has_its_timeouts(self):
        silent = self.odd_peer(hang)
        self.inventory(f'[devices.silent]\naddress = "{silent}"\nio-timeout = 0.3\n')
        result = self.ctl("-d", "silent,gw-01", "hostid")
        self.assertEqual(result.status, 255)
        self.assertRegex(result.errors[0], "^runelctl: silent: ")
        self.assertIn("1 ok, 0 failed, 1 timed out", result.errors[-1])

    def test_each_device_has_its_deadline(self):
        silent = self.odd_peer(hang)
        self.inventory(f'[devices.silent]\naddress = "{silent}"\n[groups.odd]\ndevices = ["silent"]\n'
                       "deadline = 0.3\n")
        result = self.ctl("-d", "silent,gw-01", "hostid")
        self.assertEqual(result.errors[0], "runelctl: silent: deadline exceeded")
        self.assertIn("1 ok, 0 failed, 1 timed out", result.errors[-1])

    def test_a_deadline_of_zero_is_no_limit(self):
        self.inventory('[defaults]\ndeadline = 0.2\n[devices.late]\n'
                       f'address = "{self.fakes.name(8)}"\ndeadline = 0\n')
        self.fakes.delay = 1
        result = self.ctl("-d", "late,gw-01", "hostid")
        self.assertEqual(result.errors[0], "runelctl: gw-01: deadline exceeded")
        self.assertIn("1 ok, 0 failed, 1 timed out", result.errors[-1])

    def test_a_program_has_the_limit_of_its_device(self):
        def frames(*words):
            objects = self.succeed("--json", "-n", *words).objects
            return {one["device"]: one["payload"] for one in objects if one.get("entry") == "frame"}

        self.inventory('[groups.slow]\ndevices = ["gw-01"]\ntimeout = 45\n')
        for words in (("exec", "true"), ("sh", "true")):
            both = frames("-d", "gw-[01-02]", *words)
            self.assertEqual(both["gw-02"], frames("-d", "gw-03", *words)["gw-03"])
            for limited in (("--timeout", "45", *words), (words[0], "--timeout", "45", words[1])):
                self.assertEqual(both["gw-01"], frames("-d", "gw-02", *limited)["gw-02"])
            self.assertEqual(frames("-d", "gw-01", "--timeout", "9", *words)["gw-01"],
                             frames("-d", "gw-02", "--timeout", "9", *words)["gw-02"])
        self.assertEqual(self.served("-d", "gw-01"), ["gw-01"])

    def test_a_group_limits_the_devices_in_parallel(self):
        self.fakes.delay = 0.02
        self.inventory("[groups.thin]\ndevices = [\"gw-[01-06]\"]\njobs = 2\n")
        self.served("-g", "thin")
        self.assertLessEqual(self.fakes.most, 2)

    def test_waves_come_from_the_named_group(self):
        self.inventory("[defaults]\nwave = \"1,rest\"\n[groups.all]\ndevices = [\"gw-[01-06]\"]\n"
                       "wave = \"2,rest\"\nmax-fail = 1\n")
        self.fakes.failing = {self.fakes.name(number) for number in range(6)}
        result = self.ctl("-g", "all", "hostid")
        self.assertIn("2 failed, 0 timed out, 0 unreachable, 4 skipped", result.errors[-1])
        result = self.ctl("-a", "hostid")
        self.assertIn("1 failed, 0 timed out, 0 unreachable, 6 skipped", result.errors[-1])
        result = self.ctl("-g", "all", "--wave", "3,rest", "hostid")
        self.assertIn("3 failed, 0 timed out, 0 unreachable, 3 skipped", result.errors[-1])


class Listed(InventoryCase):
    def test_list_prints_a_table_of_the_selected_devices(self):
        self.inventory()
        port = self.fakes.port
        shown = self.succeed("inventory", "list", "-g", "first").text
        self.assertEqual([line.split() for line in shown.splitlines()],
                         [["NAME", "ADDRESS", "GROUPS", "TAGS"],
                          ["gw-01", f"127.1.0.1:{port}", "first"],
                          ["gw-02", f"127.1.0.2:{port}", "first"],
                          ["hall", f"127.1.0.7:{port}", "first", "site=north,spare=true"]])
        self.assertEqual(len(self.succeed("inventory", "list").text.splitlines()), 8)
        self.assertEqual(self.succeed("-q", "inventory", "list", "-d", "198.51.100.7").text,
                         "198.51.100.7  198.51.100.7\n")
        self.assertEqual(self.fakes.order, [])

    def test_list_prints_names_for_scripts(self):
        self.inventory()
        self.assertEqual(self.succeed("inventory", "list", "--names", "-d", "gw-[01-02]").text,
                         "gw-01\ngw-02\n")
        self.assertEqual(self.succeed("inventory", "list", "--groups").text, "first\nlast\n")

    def test_list_prints_objects(self):
        self.inventory("[defaults]\nio-timeout = 5\ntimeout = 60\n")
        self.assertEqual(self.succeed("--json", "inventory", "list", "-d", "hall").objects, [
            {"v": 1, "task": "inventory", "entry": "device", "device": "hall",
             "address": f"127.1.0.7:{self.fakes.port}", "groups": ["first"],
             "tags": {"site": "north", "spare": "true"}, "timeout": 60, "io_timeout": 5.0}])

    def test_check_counts_devices_and_groups(self):
        path = self.inventory()
        self.assertEqual(self.succeed("inventory", "check").text, f"{path}: 7 devices, 2 groups\n")
        self.assertEqual(self.succeed("--json", "inventory", "check").objects, [
            {"v": 1, "task": "inventory", "ok": True, "status": 0, "devices": 7, "groups": 2,
             "file": path}])
        self.assertEqual(self.succeed("-q", "inventory", "check").out, b"")

    def test_check_prints_all_problems(self):
        path = self.file("bad", b'[devices]\na = 1\n[groups]\ng = ["b"]\n')
        result = self.ctl("--inventory", path, "inventory", "check")
        self.assertEqual((result.status, result.out, result.errors), (2, b"", [
            f"runelctl: {path}:2: device a: expected an address or a table",
            f"runelctl: {path}:4: group g: no device 'b'"]))
        objects = self.ctl("--json", "--inventory", path, "inventory", "check").objects
        self.assertEqual(objects[0], {"v": 1, "task": "inventory", "entry": "problem", "file": path,
                                      "line": 2, "text": "device a: expected an address or a table"})
        self.assertEqual((objects[2]["ok"], objects[2]["status"]), (False, 2))

    def test_a_missing_inventory_is_an_error(self):
        for action in ("check", "list"):
            result = self.ctl("inventory", action)
            self.assertEqual((result.status, len(result.errors)), (2, 1))
            self.assertIn("no inventory: create ", result.errors[0])


class AtTheMaster(MasterCase):
    def test_all_connected_devices_are_selected(self):
        self.start_master()
        for number, name in enumerate(("north", "south", "twin", "twin")):
            FakeDevice(self, f"127.0.0.{number + 2}", name)
            self.wait_told("connected", address=f"127.0.0.{number + 2}")
        objects = self.succeed("--json", "-d", "@all", "hostid").objects
        names = sorted(one["device"] for one in objects[:-1])
        self.assertEqual((names[2:], objects[-1]["summary"]["ok"]), (["@north", "@south"], 4))
        self.assertRegex(names[0] + names[1], r"^@127\.0\.0\.4:\d+@127\.0\.0\.5:\d+$")
        self.assertEqual(self.succeed("-d", "@all", "-x", f"@north,{names[0]},{names[1]}",
                                      "hostid").text, "south\n")

    def test_a_missing_master_is_status_255(self):
        result = self.ctl("-d", "@all", "hostid")
        self.assertEqual((result.status, len(result.errors)), (255, 1))
        self.assertIn("start one: runelctl master", result.errors[0])
        self.start_master()
        result = self.ctl("-d", "@all", "hostid")
        self.assertEqual((result.status, result.errors), (
            255, ["runelctl: no device is connected to the master "
                  "(runelctl devices lists the connected devices)"]))


if __name__ == "__main__":
    unittest.main()
