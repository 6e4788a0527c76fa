# SPDX-License-Identifier: Apache-2.0
"""How the gateway starts and ends, and its local commands."""
import json
import os
import re
import signal
import socket
import stat

from support.gateway import BINARY, DEVICE_PORT, HTTP_PORT, GatewayCase
from support.wait import TIMEOUT, wait_until

TOKEN = re.compile(r"rgw_[A-Za-z0-9_-]{43}")


class Start(GatewayCase):
    def test_it_tells_its_supervisor_when_it_is_ready_and_when_it_ends(self):
        gateway = self.start_gateway()
        for port in (DEVICE_PORT, HTTP_PORT):
            socket.create_connection(("127.0.0.1", port), TIMEOUT).close()
        gateway.process.send_signal(signal.SIGTERM)
        self.assertEqual(gateway.process.wait(TIMEOUT), 0)
        self.assertEqual(gateway.told(), "STOPPING=1")
        self.assertIsNone(gateway.told())
        self.assertFalse(os.path.exists(gateway.settings["service.control_socket"]))

    def test_it_says_what_it_does_and_how_many_devices_it_can_hold(self):
        gateway = self.start_gateway()
        self.assertIn("devices on 0.0.0.0:5112, HTTP on 127.0.0.1:5180, 0 devices in ", gateway.log())
        self.assertRegex(gateway.log(), r"info: \d+ descriptors allow \d+ connections of devices\n")
        hard = re.search(r"Max open files +\d+ +(\d+)", open(f"/proc/{gateway.process.pid}/limits",
                                                              encoding="ascii").read())[1]
        self.assertIn(f"info: {hard} descriptors", gateway.log())

    def test_wrong_settings_end_it_at_once_with_their_own_status(self):
        gateway = self.make_gateway(queue__length=0)
        gateway.launch()
        self.assertEqual(gateway.process.wait(TIMEOUT), 2)
        self.assertEqual(gateway.log(), "runelgw: --queue-length: expected a whole number from 1 to 10000\n")

    def test_a_port_that_is_taken_is_named(self):
        with socket.create_server(("127.0.0.1", HTTP_PORT)):
            gateway = self.make_gateway()
            gateway.launch()
            self.assertEqual(gateway.process.wait(TIMEOUT), 1)
        self.assertRegex(gateway.log(), r"error: .*127\.0\.0\.1:5180.*[Aa]ddress already in use")
        self.assertIsNone(gateway.told())

    def test_a_damaged_database_is_refused_with_a_sentence(self):
        gateway = self.start_gateway()
        gateway.stop()
        with open(gateway.settings["database.url"], "r+b") as file:
            file.write(b"no database" * 100)
        gateway.launch()
        self.assertEqual(gateway.process.wait(TIMEOUT), 1)
        self.assertIn(gateway.settings["database.url"], gateway.log())
        self.assertRegex(gateway.log(), r"error: .*(restore|backup)")

    def test_a_second_gateway_does_not_touch_the_first_one(self):
        gateway = self.start_gateway()
        second = gateway.command("--devices-listen", "127.0.0.1:7", "--http-listen", "127.0.0.1:8", "run")
        self.assertEqual(second.returncode, 1)
        self.assertRegex(second.stderr.decode(), r"error: .*(gateway|use)")
        self.assertEqual(gateway.get("/v1/devices")["items"], [])

    def test_what_is_logged_cannot_be_forged(self):
        gateway = self.start_gateway()
        gateway.command("token", "create", "--name", "x\nerror: forged", "--role", "viewer")
        self.assertNotIn("\nerror: forged", gateway.log())

    def test_health_and_readiness_need_no_token(self):
        gateway = self.start_gateway()
        for path in ("/healthz", "/readyz"):
            self.assertEqual(gateway.ask("GET", path, token="").status, 200)
        self.assertEqual(gateway.ask("GET", "/v1/devices", token="").status, 401)

    def test_the_figures_of_all_parts_are_there(self):
        gateway = self.start_gateway()
        text = gateway.ask("GET", "/metrics").body.decode()
        self.assertRegex(text, r'(?m)^runelgw_devices\{state="online"\} 0$')
        self.assertRegex(text, r"(?m)^runelgw_\w*commits\w* [1-9]")


class Tokens(GatewayCase):
    def test_a_token_is_printed_once_and_works_until_it_is_revoked(self):
        gateway = self.start_gateway()
        done = gateway.command("token", "create", "--name", "ci", "--role", "viewer", "--expires", "1h")
        self.assertEqual(done.returncode, 0, done.stderr)
        token = done.stdout.decode().rstrip("\n")
        self.assertRegex(token, TOKEN)
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=token).status, 200)
        self.assertNotIn(token, gateway.log())
        self.assertEqual(gateway.command("token", "revoke", "ci").returncode, 0)
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=token).status, 401)
        listed = json.loads(gateway.command("token", "list", "--json").stdout)
        self.assertEqual([(each["name"], each["role"], each["usable"]) for each in listed],
                         [("ci", "viewer", False)])
        self.assertNotIn(token, json.dumps(listed))
        self.assertRegex(gateway.command("token", "list").stdout.decode(), r"(?m)^1 +ci +viewer +- +- +revoked")

    def test_tokens_are_made_without_a_gateway_too(self):
        gateway = self.make_gateway()
        token = gateway.token("operator")
        gateway.start()
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=token).status, 200)
        gateway.stop()
        self.assertEqual(gateway.command("token", "revoke", "operator-0").returncode, 0)
        gateway.start()
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=token).status, 401)

    def test_files_belong_to_the_owner_of_the_state_directory(self):
        gateway = self.make_gateway()
        os.chmod(self.directory, 0o755)
        os.chown(gateway.directory, 65534, 65534)
        gateway.token()
        self.assertEqual({os.stat(os.path.join(gateway.directory, name)).st_uid
                          for name in os.listdir(gateway.directory)}, {65534})

    def test_only_the_user_of_the_gateway_reaches_the_socket(self):
        gateway = self.start_gateway()
        mode = os.stat(gateway.settings["service.control_socket"]).st_mode
        self.assertEqual((stat.S_ISSOCK(mode), stat.S_IMODE(mode)), (True, 0o600))

    def test_each_change_is_in_the_record(self):
        gateway = self.start_gateway()
        gateway.token("operator")
        gateway.command("token", "revoke", "operator-0")
        found = [(each["who"], each["what"], each["outcome"]) for each in gateway.get("/v1/audit")["items"]
                 if each["who"] == "uid 0"]
        self.assertIn(("uid 0", "token-create", "done"), found)
        self.assertIn(("uid 0", "token-revoke", "done"), found)
        self.assertIn("info: token-revoke by uid 0: done: operator-0\n", gateway.log())

    def test_errors_are_sentences(self):
        gateway = self.start_gateway()
        gateway.token("viewer")
        for words, text in ((("create", "--name", "viewer-0", "--role", "viewer"), "a token with this name exists"),
                            (("create", "--name", "x", "--role", "viewer", "--kinds", "exec"), "unknown kind of task"),
                            (("revoke", "unknown"), "there is no token 'unknown'")):
            done = gateway.command("token", *words)
            self.assertEqual((done.returncode, done.stdout), (1, b""))
            self.assertRegex(done.stderr.decode(), f"^runelgw: .*{text}.*\n$")


class Copies(GatewayCase):
    def test_a_backup_of_a_running_gateway_is_restored_while_it_runs(self):
        gateway = self.start_gateway()
        before = gateway.token()
        copy = self.path("copy.db")
        self.assertEqual(gateway.command("backup", copy).returncode, 0)
        self.assertEqual(stat.S_IMODE(os.stat(copy).st_mode), 0o600)
        later = gateway.token("viewer")
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=later).status, 200)
        process = gateway.process.pid
        self.assertEqual(gateway.command("restore", copy).returncode, 0)
        gateway.wait_logged("info: runelgw", times=2)
        self.assertEqual([gateway.told(), gateway.told()], ["STOPPING=1", "READY=1"])
        self.assertEqual(gateway.process.pid, process)
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=before).status, 200)
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=later).status, 401)
        self.assertEqual([name for name in os.listdir(gateway.directory) if "restore" in name or "part" in name],
                         [])
        self.assertNotIn("not orderly", gateway.log())

    def test_backup_and_restore_without_a_gateway(self):
        gateway = self.make_gateway()
        before = gateway.token()
        copy = gateway.command("backup", "-")
        self.assertEqual(copy.returncode, 0, copy.stderr)
        with open(self.path("copy.db"), "wb") as file:
            file.write(copy.stdout)
        later = gateway.token("viewer")
        self.assertEqual(gateway.command("restore", self.path("copy.db")).returncode, 0)
        gateway.start()
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=before).status, 200)
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=later).status, 401)

    def test_a_file_that_is_no_backup_changes_nothing(self):
        gateway = self.start_gateway()
        token = gateway.token()
        done = gateway.command("restore", self.file("other", b"no database" * 100))
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr.decode(), "^runelgw: .*\n$")
        self.assertEqual(gateway.ask("GET", "/v1/devices", token=token).status, 200)
        self.assertNotIn("restarting", gateway.log())

    def test_a_backup_that_cannot_be_written_leaves_nothing(self):
        gateway = self.start_gateway()
        done = gateway.command("backup", "/missing/copy.db")
        self.assertEqual((done.returncode, done.stderr),
                         (1, b"runelgw: /missing/copy.db: No such file or directory\n"))
        gateway.command("backup", self.path("copy.db"))
        self.assertEqual([name for name in os.listdir(self.directory) if "copy" in name], ["copy.db"])


class OrderlyEnd(GatewayCase):
    """The note of the stop hook: only an orderly end spares the next start its caution."""

    def caution(self, gateway):
        """Whether a start is cautious, with one device in the database."""
        before = gateway.log().count("the last end was not orderly")
        gateway.start()
        return gateway.log().count("the last end was not orderly") > before

    def setUp(self):
        super().setUp()
        self.gateway = self.start_gateway(devices__caution_seconds=1)
        controllers = self.controllers(1).start()
        self.gateway.wait_devices(1)
        controllers.stop()
        self.gateway.stop()

    def test_an_orderly_end(self):
        self.assertFalse(self.caution(self.gateway))

    def test_the_note_is_for_one_start_only(self):
        self.gateway.start()
        self.gateway.process.kill()
        self.gateway.process.wait()
        self.assertTrue(self.caution(self.gateway))

    def test_a_crash(self):
        self.gateway.start().kill()
        self.assertTrue(self.caution(self.gateway))

    def test_a_note_of_another_boot(self):
        path = os.path.join(self.gateway.directory, "orderly-end")
        with open(path, encoding="ascii") as file:
            text = file.read()
        boot = open("/proc/sys/kernel/random/boot_id", encoding="ascii").read().strip()
        self.assertIn(boot, text)
        with open(path, "w", encoding="ascii") as file:
            file.write(text.replace(boot, boot[::-1]))
        self.assertTrue(self.caution(self.gateway))


class Config(GatewayCase):
    def test_the_file_and_its_problems(self):
        gateway = self.make_gateway()
        path = self.file("runelgw.toml", b"[queue]\nlenght = 3\n")
        done = gateway.command("check-config", path)
        self.assertEqual((done.returncode, done.stderr.decode()),
                         (2, f"runelgw: {path}:2: unknown key 'queue.lenght' (did you mean 'length'?)\n"))
        path = self.file("runelgw.toml", b"[queue]\nlength = 3\n")
        done = gateway.command("check-config", path)
        self.assertEqual((done.returncode, done.stdout.decode()), (0, f"{path}: no problems\n"))
        done = gateway.command("--config", path, "check-config", "--print")
        self.assertIn("\nlength = 3\n", done.stdout.decode())

    def test_the_installed_file_is_used_without_an_option(self):
        os.makedirs("/etc/runelgw", exist_ok=True)
        with open("/etc/runelgw/runelgw.toml", "w", encoding="ascii") as file:
            file.write("[queue]\nlength = x\n")
        self.addCleanup(os.unlink, "/etc/runelgw/runelgw.toml")
        done = self.make_gateway().command("token", "list")
        self.assertEqual(done.returncode, 2)
        self.assertIn(b"/etc/runelgw/runelgw.toml:2: ", done.stderr)

    def test_the_program_is_the_tested_one(self):
        self.assertTrue(os.path.isabs(BINARY), "RUNELGW_BIN must name the binary")
        wait_until(lambda: os.access(BINARY, os.X_OK), "the binary is there")
