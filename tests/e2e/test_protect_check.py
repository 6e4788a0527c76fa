# SPDX-License-Identifier: Apache-2.0
"""runeld-protect check: what it says of each protection, and its exit status."""
import ctypes
import os
import re
import shutil
import socket
import struct
import subprocess
import sys

from support import world
from support.networks import inside, ip
from support.peers import AGENT_PORT, MASTER_PORT
from support.protection import (DEVICE, DROPPED, ELSEWHERE, FILES, MASTER, PRIVILEGED, STRANGER,
                                ProtectionCase, Stunnel, WireGuard, dial, filter_rules, load, nft)
from support.users import UNPRIVILEGED, as_user, socket_of
from support.wait import TIMEOUT, wait_until

SCRIPT = os.path.join(FILES, "runeld-protect")
HARDENED = ("setpriv", "--bounding-set=-sys_module", "--")
APPLETS = "awk cat cut date dd grep id ip ls nsenter readlink sed sh sort tail tr".split()


def filter_system_calls():
    """A filter for the system calls of this process, which lets all pass."""
    libc = ctypes.CDLL(None, use_errno=True)
    allow = ctypes.create_string_buffer(struct.pack("HBBI", 6, 0, 0, 0x7fff0000))
    program = ctypes.create_string_buffer(struct.pack("HxxxxxxP", 1, ctypes.addressof(allow)))
    assert libc.prctl(38, 1, 0, 0, 0) == 0  # PR_SET_NO_NEW_PRIVS
    assert libc.prctl(22, 2, program) == 0  # PR_SET_SECCOMP


class Report:
    """The screen of a check: protections, and the ways in by their port and place."""

    def __init__(self, status, text):
        self.status = status
        self.text = text
        self.last = text.splitlines()[-1]
        self.protections, self.why, self.ways = {}, {}, {}
        port = None
        for line in text.splitlines():
            port = re.match(r"Port (\d+)( of this device)?: who ", line) or port
            if line.startswith("  "):
                verdict, name, rest = re.fullmatch(r"  (\S+) +(.*?)  +(.*)", line).groups()
                if port:
                    self.ways[f"{port[1]} {name}"] = verdict, rest
                else:
                    self.protections[name], self.why[name] = verdict, rest

    def open(self):
        """The ways that are open."""
        return [way for way, (verdict, _) in self.ways.items() if verdict == "OPEN"]


class CheckCase(ProtectionCase):
    """Checks run in dash. The first of each test also runs in busybox, without other tools but nft and wg."""

    def setUp(self):
        super().setUp()
        self.ran_in_busybox = False
        tools = self.path("tools")
        os.mkdir(tools)
        for name in APPLETS:
            os.symlink("/usr/bin/busybox", os.path.join(tools, name))

    def run_script(self, *arguments, shell=("dash",), **options):
        return subprocess.run([*shell, SCRIPT, *arguments], stdin=subprocess.DEVNULL, timeout=TIMEOUT,
                              capture_output=True, text=True, check=False, **options)

    def replaced(self, program, script):
        """An environment in which this script runs instead of @p program."""
        directory = self.path("replaced")
        os.mkdir(directory)
        with open(os.path.join(directory, program), "w", encoding="ascii") as replacement:
            replacement.write(f"#!/bin/sh\n{script}\n")
            os.fchmod(replacement.fileno(), 0o755)
        return {"PATH": f"{directory}:{os.environ['PATH']}"}

    def check(self, *arguments):
        runs = [self.run_script("check", *arguments)]
        if not self.ran_in_busybox:
            self.ran_in_busybox = True
            runs.append(self.run_script("check", *arguments, shell=("busybox", "sh"),
                                        env={"PATH": f"{self.path('tools')}:/usr/bin"}))
        for run in runs:
            self.assertEqual(run.stderr, "")
            self.assertLessEqual(len(run.stdout.splitlines()), 24)
            self.assertLessEqual(max(map(len, run.stdout.splitlines())), 80)
        same = [(run.returncode, re.sub(r"\d+ s ago", "", run.stdout)) for run in runs]
        self.assertEqual(same[0], same[-1])
        return Report(runs[0].returncode, runs[0].stdout)

    def program(self, file, name, user):
        """Runs this Python as @p user, called @p name, with a socket that listens on port 5112."""
        if getattr(self, "running", None):
            self.running.kill()
            self.running.wait()
        with socket_of(user) as listening:
            listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listening.bind(("127.0.0.1", MASTER_PORT))
            listening.listen()
            self.running = subprocess.Popen(
                [file, "-I", "-c", "import sys, time; open('/proc/self/comm', 'wb').write(bytes.fromhex("
                 "sys.argv[1])); print('named', flush=True); time.sleep(1000)", name.hex()],
                user=user, group=UNPRIVILEGED, extra_groups=[], pass_fds=[listening.fileno()],
                env={"PYTHONHOME": sys.prefix}, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.addCleanup(self.running.stdout.close)
        self.addCleanup(self.running.wait)
        self.addCleanup(self.running.kill)
        self.assertEqual(self.running.stdout.readline(), b"named\n")
        return self.running.pid

    def protect(self, *examples):
        """Privileged ports and the filter."""
        self.run_tool("sysctl", "-q", "-p", os.path.join(FILES, "60-runeld.conf"))
        load(filter_rules(*examples))


class CheckTest(CheckCase):
    def test_a_device_without_any_protection(self):
        daemon = self.daemon()
        report = self.check()
        self.assertEqual(report.text, f"""\
runeld: process {daemon.pid}, master 127.0.0.1
Port 5111: 0.0.0.0: runeld (process {daemon.pid}, root)
Port 5112: no program listens on this device
Protections
  no    ports     every local user binds the ports from 1024 on
  no    filter    the table inet runeld is not loaded
  no    drop-in   the daemon has all rights of root
  no    tunnel    neither stunnel nor ssh answers on 127.0.0.1:5112
Port 5111: who runs any task as root
  OPEN  to bind it before runeld  every local user: the device reboots
  OPEN  local programs            every local user
  OPEN  mgmt0 {DEVICE}           all hosts
  OPEN  wan0 198.51.100.2         all hosts
Port 5112: who acts as the master, and runs any task as root
  OPEN  local programs            every local user
OPEN: 5 of 5 ways
""")
        self.assertEqual(report.status, 1)
        self.assert_stops(daemon)

    def test_a_device_with_the_files_in_use(self):
        self.protect("clients", "client_users", "master_users")
        nft("add", "element", "inet", "runeld", "clients", '{ "wan0" . 0.0.0.0/0 }')
        daemon = self.daemon(wrapper=HARDENED, setup=filter_system_calls)
        master = self.master()
        master.accept()
        before = nft("-s", "list", "ruleset")
        report = self.check("--require", "ports", "--require", "filter", "--require", "drop-in")
        self.assertEqual(report.text, f"""\
runeld: process {daemon.pid}, master 127.0.0.1
Port 5111: 0.0.0.0: runeld (process {daemon.pid}, root)
Port 5112: 127.0.0.1: python3 (process {os.getpid()}, root)
Protections
  yes   ports     only root binds the ports up to 5112
  yes   filter    nftables: interface, address, user, number of connections
  yes   drop-in   restricted: system calls, capabilities, new privileges
  no    tunnel    neither stunnel nor ssh answers on 127.0.0.1:5112
Port 5111: who runs any task as root
  ok    to bind it before runeld  root
  ok    local programs            root agent
  ok    mgmt0 {DEVICE}           {MASTER}
  ok    wan0 198.51.100.2         all hosts
Port 5112: who acts as the master, and runs any task as root
  ok    local programs            root stunnel4
PROTECTED: only the users and hosts that are named above
""")
        self.assertEqual(report.status, 0)
        self.assertEqual(nft("-s", "list", "ruleset"), before)
        self.assertTrue(master.no_connection_waits())
        self.assert_stops(daemon)

    def test_what_a_drop_in_restricts_is_named(self):
        self.protect()
        for wrapper, setup, named in ((("setpriv", "--no-new-privs", "--"), None, "new privileges"),
                                      (HARDENED, None, "capabilities"),
                                      ((), filter_system_calls, "system calls, new privileges")):
            daemon = self.daemon(wrapper=wrapper, setup=setup)
            report = self.check("--require", "drop-in")
            self.assertEqual((report.status, report.protections["drop-in"]), (1, "no"))
            self.assertEqual(report.why["drop-in"], f"restricted in part only: {named}")
            self.assert_stops(daemon)

    def test_each_protection_counts(self):
        self.protect()
        daemon = self.daemon()
        self.assertEqual(self.check().status, 0)

        report = self.check("--require", "drop-in")
        self.assertEqual((report.status, report.protections["drop-in"]), (1, "no"))
        self.assertEqual(report.last, "OPEN: required, and missing: drop-in")

        self.restore(PRIVILEGED, "5112")
        report = self.check()
        self.assertEqual((report.status, report.protections["ports"]), (0, "no"))
        self.assertEqual(self.check("--require", "ports").status, 1)
        self.restore(PRIVILEGED, "5111")
        report = self.check()
        self.assertEqual((report.status, report.open()), (1, ["5111 to bind it before runeld"]))
        self.restore(PRIVILEGED, "5113")

        nft("delete", "table", "inet", "runeld")
        report = self.check()
        self.assertEqual((report.status, report.protections["filter"]), (1, "no"))
        self.assertEqual(report.open(), ["5111 local programs", "5111 mgmt0 192.0.2.2",
                                         "5111 wan0 198.51.100.2"])
        self.assert_stops(daemon)

    def test_a_filter_that_was_changed_does_not_count(self):
        self.protect()
        local, outside, master = "5111 local programs", "5111 mgmt0 192.0.2.2", "5112 local programs"
        self.restore(PRIVILEGED, "1024")
        bind = "5111 to bind it before runeld"
        everything = [bind, local, outside, "5111 wan0 198.51.100.2", master]
        self.assertEqual(self.check().open(), [bind])
        for name, chain, text, opened in (
                ("clients", "input", "@clients", [outside, "5111 wan0 198.51.100.2"]),
                ("devices", "input", "@devices_outside", []),
                ("rate", "input", "@rates", []),
                ("connections", "input", "@connections", []),
                ("users", "output", "@client_users", [local]),
                ("dialling", "output", "@dial_users", []),
                ("masters", "output", "@masters", []),
                ("answers", "output", "@master_users", [master])):
            with self.subTest(name):
                load(filter_rules())
                handle = re.search(rf"{text} .*# handle (\d+)$", nft("-a", "list", "chain", "inet", "runeld",
                                                                   chain), re.MULTILINE)
                nft("delete", "rule", "inet", "runeld", chain, "handle", handle[1])
                report = self.check()
                self.assertEqual(report.why["filter"], f"rules are missing: {name}")
                self.assertEqual(sorted(report.open()), sorted([bind, *opened]))
        for change, why in (("insert rule inet runeld input tcp dport 5111 accept",
                             "the table inet runeld was changed: chain input"),
                            ("insert rule inet runeld output ct state established return",
                             "the table inet runeld was changed: chain output"),
                            ("flush chain inet runeld output",
                             "rules are missing: users, dialling, masters, answers"),
                            ("add table inet runeld { flags dormant; }", "the table inet runeld is dormant")):
            with self.subTest(change):
                load(filter_rules())
                load(change)
                report = self.check()
                self.assertEqual(report.why["filter"], why)
                self.assertEqual(report.open(), [bind, local, master] if "flush" in change else everything)

    def dial_from(self, host, address, port):
        with inside(host), socket.socket() as connecting:
            return dial(connecting, address, port, DROPPED)

    def test_an_interface_can_be_named_by_its_beginning(self):
        self.protect()
        daemon = self.daemon("-i", MASTER)
        wan, mgmt = "5111 wan0 198.51.100.2", f"5111 mgmt0 {DEVICE}"
        for pattern in ("wan*", "w*", "wan0*"):
            with self.subTest(pattern):
                load(filter_rules())
                nft("add", "element", "inet", "runeld", "clients", f'{{ "{pattern}" . 0.0.0.0/0 }}')
                self.assertEqual(self.dial_from("stranger", ELSEWHERE, AGENT_PORT), "connected")
                report = self.check()
                self.assertEqual(report.ways[wan], ("ok", "all hosts"))
                self.assertEqual(report.ways[mgmt], ("ok", "no host"))
        for pattern in ("wan00*", "an0*", "wan"):
            with self.subTest(pattern):
                load(filter_rules())
                nft("add", "element", "inet", "runeld", "clients", f'{{ "{pattern}" . 0.0.0.0/0 }}')
                self.assertEqual(self.dial_from("stranger", ELSEWHERE, AGENT_PORT), "dropped")
                self.assertEqual(self.check().ways[wan], ("ok", "no host"))
        nft("add", "element", "inet", "runeld", "masters", '{ "mgm*" . 192.0.2.0/24 }')
        self.assertEqual(self.check().ways[f"5112 {MASTER} by mgmt0"],
                         ("ok", "every host on this way: not encrypted"))
        self.assert_stops(daemon)

    def test_comments_of_elements_hide_nothing(self):
        self.protect()
        nft("add", "element", "inet", "runeld", "clients",
            '{ "mgmt0" . 192.0.2.1 comment "a } b, c", "mgmt0" . 192.0.2.3-192.0.2.7, "x,}" . 192.0.2.8,'
            ' "wan0" . 198.51.100.9 comment "elements = { wan0 . 198.51.100.1,\n}" }')
        nft("add", "element", "inet", "runeld", "client_users",
            f'{{ {self.agent} comment "the agent, }}", {self.tunnel} }}')
        report = self.check()
        self.assertEqual(report.ways[f"5111 mgmt0 {DEVICE}"], ("ok", "192.0.2.1 192.0.2.3-192.0.2.7"))
        self.assertEqual(report.ways["5111 wan0 198.51.100.2"], ("ok", "198.51.100.9"))
        verdict, who = report.ways["5111 local programs"]
        self.assertEqual((verdict, sorted(who.split(" "))), ("ok", ["agent", "root", "stunnel4"]))

    def test_strings_in_rules_are_not_rules(self):
        self.protect()
        everything = "nftables: interface, address, user, number of connections"
        for rule, why in (('tcp dport 22 drop comment "we accept no one"', everything),
                          ('tcp dport 22 log prefix " accept " drop', everything),
                          ('log prefix " type filter hook input priority " accept',
                           "the table inet runeld was changed: chain input"),
                          ('accept comment " type filter hook input priority "',
                           "the table inet runeld was changed: chain input"),
                          ('tcp dport 22 drop comment "\n\t}\n"', everything)):
            with self.subTest(rule):
                load(filter_rules())
                load(f"insert rule inet runeld input {rule}")
                self.assertEqual(self.check().why["filter"], why)
        load(filter_rules().replace("@clients drop", '@clients drop comment "others"'))
        self.assertEqual(self.check().why["filter"], everything)

    def test_ports_that_another_table_rewrites(self):
        """What the documents say: the rules see a port that was rewritten before them, not after."""
        self.protect("clients")
        daemon = self.daemon("-i", MASTER)
        load("""table inet other {
          chain before { type nat hook prerouting priority dstnat; tcp dport 6001 redirect to :5111; }
          chain before_local { type nat hook output priority -100; tcp dport 6001 redirect to :5111; }
          chain late { type nat hook output priority filter + 1; tcp dport 6003 redirect to :5111; }
          chain rewrite {
            type filter hook input priority filter + 1;
            tcp dport 6002 tcp dport set 5111
          }
          chain answers {
            type filter hook output priority filter + 1;
            oifname "wan0" tcp sport 5111 tcp sport set 6002
          }
        }""")
        self.assertEqual(self.dial_from("master", DEVICE, 6001), "connected")
        self.assertEqual(self.dial_from("stranger", ELSEWHERE, 6001), "dropped")
        for port in (6001, 6003):  # the kernel redirects at one place, at any priority of the chain
            self.assertEqual(self.dial_as(0, "127.0.0.1", port), "connected")
            self.assertEqual(self.dial_as(self.agent, "127.0.0.1", port), "refused")
        self.assertEqual(self.check().ways["5111 wan0 198.51.100.2"], ("ok", "no host"))
        self.assertEqual(self.dial_from("stranger", ELSEWHERE, 6002), "connected")
        self.assert_stops(daemon)

    def test_a_name_of_a_program_does_not_reach_the_terminal(self):
        self.restore(PRIVILEGED, "1024")
        for name, shown in ((b"\x1b[2J\x9b\xff\r\x07", "?[2J????"), (b"a\nb", "a?b"),
                            (b"\\033[2J\\n", r"\033[2J\n")):
            with self.subTest(name):
                number = self.program("/usr/bin/python3", name, UNPRIVILEGED)
                report = self.check()
                self.assertIn(f"Port 5112: 127.0.0.1: {shown} (process {number}, nobody)\n", report.text)

    def test_only_a_trusted_program_is_the_end_of_a_tunnel(self):
        self.protect()
        own = self.path("own")
        os.mkdir(own)
        os.chmod(self.directory, 0o755)
        copies = {}
        for name, user, mode in (("ssh", 0, 0o755), ("stunnel", UNPRIVILEGED, 0o755), ("stunnel4", 0, 0o775),
                                 ("dbclient", 0, 0o757), ("other", 0, 0o755), ("stunnel-x", 0, 0o755)):
            copies[name] = os.path.join(own, name)
            shutil.copy(os.path.realpath("/usr/bin/python3"), copies[name])
            os.chown(copies[name], user, user)
            os.chmod(copies[name], mode)
        for program, user, yes in (("ssh", 0, True), ("ssh", self.tunnel, True), ("ssh", UNPRIVILEGED, False),
                                   ("ssh", self.agent, False), ("stunnel", 0, False), ("stunnel4", 0, False),
                                   ("dbclient", 0, False), ("other", 0, False), ("stunnel-x", 0, False)):
            with self.subTest(program=program, user=user):
                number = self.program(copies[program], b"stunnel", user)
                report = self.check("--require", "tunnel")
                self.assertEqual(report.why["tunnel"],
                                 f"stunnel (process {number}) answers on 127.0.0.1:5112" if yes else
                                 "neither stunnel nor ssh answers on 127.0.0.1:5112")
                self.assertEqual(report.status, 0 if yes else 1)

    def test_a_local_master_is_who_has_the_port(self):
        with socket_of(UNPRIVILEGED) as impostor:
            impostor.bind(("127.0.0.1", MASTER_PORT))
            impostor.listen()
            self.run_tool("sysctl", "-q", "-p", os.path.join(FILES, "60-runeld.conf"))
            self.assertEqual(self.check().ways["5112 local programs"], ("OPEN", "nobody, who has the port"))
            load(filter_rules())
            self.assertEqual(self.check().ways["5112 local programs"], ("ok", "root"))
        nft("delete", "element", "inet", "runeld", "masters", '{ "lo" . 127.0.0.1 }')
        self.assertEqual(self.check().ways["5112 local programs"],
                         ("ok", "none: the set masters lacks lo . 127.0.0.1"))

    def test_a_master_that_other_hosts_reach(self):
        self.protect()
        with socket.socket() as listening:
            listening.bind(("0.0.0.0", MASTER_PORT))
            listening.listen()
            self.assertEqual(self.check().ways["5112 other hosts"], ("ok", "no host"))
            load(filter_rules("devices_outside"))
            self.assertEqual(self.check().ways["5112 other hosts"], ("ok", "mgmt0 192.0.2.0/24"))
            nft("delete", "table", "inet", "runeld")
            self.assertEqual(self.check().ways["5112 other hosts"], ("OPEN", "all hosts"))

    def test_another_program_with_the_daemon_s_port(self):
        self.protect()
        with socket.socket() as listening:
            listening.bind(("127.0.0.1", AGENT_PORT))
            listening.listen()
            report = self.check()
        self.assertEqual((report.status, report.ways["5111 the port itself"]),
                         (1, ("OPEN", "another program holds it")))
        self.assertIn(f"Port 5111: 127.0.0.1: python3 (process {os.getpid()}, root)\n", report.text)

    def test_a_remote_master(self):
        self.protect()
        place = f"5112 {MASTER} by mgmt0"
        daemon = self.daemon("-i", "127.0.0.1", "--ip-address", MASTER)
        report = self.check()
        self.assertEqual((report.status, report.ways[place]),
                         (0, ("ok", "no host: the set masters lacks this place")))
        load(filter_rules("masters"))
        self.assertEqual(self.check().ways[place], ("ok", "every host on this way: not encrypted"))
        nft("delete", "table", "inet", "runeld")
        self.assertEqual(self.check().ways[place],
                         ("OPEN", "every host on the way, or with this address"))
        ip("link", "set", "mgmt0", "down")
        self.assertEqual(self.check().ways[f"5112 {MASTER}"], ("ok", "no host: there is no route to it"))
        self.assert_stops(daemon)

    def test_the_master_of_a_daemon_that_does_not_run(self):
        self.protect("masters")
        world.mount("-t", "tmpfs", "tmpfs", "/etc/default")
        self.addCleanup(world.unmount, "/etc/default")
        for options, where, (verdict, who) in (
                (f'RUNELD_OPTIONS="-v -i {MASTER}"', f"5112 {MASTER} by mgmt0",
                 ("ok", "every host on this way: not encrypted")),
                ("RUNELD_OPTIONS='-i host.example'", "5112 host.example", ("ok", f"mgmt0 {MASTER}")),
                ("# RUNELD_OPTIONS=-i 192.0.2.3", "5112 local programs",
                 ("ok", "none: the set masters lacks lo . 127.0.0.1"))):
            self.restore("/etc/default/runeld", f"{options}\n")
            self.assertEqual(self.check().ways[where], (verdict, who))
        self.restore("/etc/hosts", f"127.0.0.1 localhost\n{MASTER} other host.example\n")
        self.restore("/etc/default/runeld", "RUNELD_OPTIONS='-i host.example'\n")
        self.assertIn(f"5112 {MASTER} by mgmt0", self.check().ways)
        world.reset()
        nft("delete", "table", "inet", "runeld")
        self.assertEqual(self.check().ways["5112 host.example"],
                         ("OPEN", "every host that answers for this name"))

    def test_a_daemon_in_its_own_network_namespace(self):
        self.protect()
        self.assertEqual(self.check().status, 0)
        daemon = self.daemon(wrapper=("ip", "netns", "exec", "stranger"))
        report = self.check()
        self.assertIn(f"runeld: process {daemon.pid} in its own network namespace, master", report.text)
        self.assertEqual((report.status, report.protections["filter"]), (1, "no"))
        self.assertEqual(report.ways[f"5111 eth0 {STRANGER}"], ("OPEN", "all hosts"))
        with inside("stranger"):
            load(filter_rules())
            self.restore(PRIVILEGED, "5113")
        self.assertEqual(self.check().status, 0)
        self.assert_stops(daemon)

    def namesake(self, *wrapper):
        """Starts another program that is called runeld, which every user can do."""
        program = self.path("runeld")
        os.chmod(self.directory, 0o755)
        if not os.path.exists(program):
            shutil.copy("/usr/bin/sleep", program)
        process = subprocess.Popen([*wrapper, program, "1000"])
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        wait_until(lambda: self.text(f"/proc/{process.pid}/comm") == "runeld\n", "its name is runeld")
        return process

    def test_only_root_s_daemon_counts(self):
        self.namesake("setpriv", f"--reuid={UNPRIVILEGED}", "--clear-groups")
        self.assertIn("runeld: does not run;", self.check().text)
        process = self.namesake()
        self.assertIn(f"runeld: process {process.pid},", self.check().text)

    def test_the_daemon_that_has_the_port_counts(self):
        self.namesake()
        daemon = self.daemon("-i", MASTER)
        self.namesake()  # one of the two is examined first
        self.assertIn(f"runeld: process {daemon.pid}, master {MASTER}\n", self.check().text)
        self.assert_stops(daemon)

    def test_many_interfaces_fit_on_the_screen(self):
        for number in range(7):
            ip("link", "add", f"lan{number}", "type", "veth", "peer", "name", f"lan{number}", "netns", "master")
            ip("link", "set", f"lan{number}", "up")
        report = self.check()
        self.assertEqual(report.ways["5111 3 more interfaces"], ("OPEN", "all hosts"))
        self.assertEqual(len(report.ways), 2 + 6 + 1 + 1)
        self.protect()
        self.assertEqual(self.check().ways["5111 3 more interfaces"],
                         ("ok", "the hosts of the set clients"))

    def test_errors_have_their_own_status(self):
        for arguments, reason in ((["check", "--require"], "--require ports, filter, drop-in or tunnel"),
                                  (["check", "--require", "all"], "--require ports, filter, drop-in or tunnel"),
                                  (["check", "now"], "unknown argument now; see runeld-protect --help"),
                                  (["start"], "unknown command start; see runeld-protect --help")):
            run = self.run_script(*arguments)
            self.assertEqual((run.returncode, run.stdout, run.stderr),
                             (2, "", f"runeld-protect: {reason}\n"))
        run = self.run_script()
        self.assertEqual((run.returncode, run.stdout), (2, ""))
        self.assertIn("Usage: runeld-protect check", run.stderr)
        for arguments in (["--help"], ["-h"], ["check", "--help"]):
            run = self.run_script(*arguments)
            self.assertEqual((run.returncode, run.stderr), (0, ""))
            self.assertIn("Usage: runeld-protect check", run.stdout)
        self.assertEqual(as_user(UNPRIVILEGED, lambda: self.run_script("check").stderr),
                         "runeld-protect: run it as root\n")
        run = self.run_script("check", env=self.replaced("nft", "echo Operation not supported >&2; exit 1"))
        self.assertEqual((run.returncode, run.stderr),
                         (2, "runeld-protect: nft list tables: Operation not supported\n"))


class TunnelTest(CheckCase, WireGuard):
    def test_a_tunnel_is_the_way_to_the_master_or_it_is_not(self):
        ip("route", "add", "default", "via", MASTER)
        load(self.rules())
        self.restore(PRIVILEGED, "5113")
        with inside("master"):
            far = self.master(self.FAR)
        place = f"5112 {self.FAR} by wg-master"
        daemon = self.daemon("-i", self.FAR)
        far.accept()
        report = self.check("--require", "tunnel")
        self.assertEqual((report.status, report.protections["tunnel"]), (0, "yes"))
        self.assertRegex(report.why["tunnel"], r"^WireGuard, wg-master: the last handshake was \d+ s ago$")
        self.assertEqual(report.ways[place], ("ok", "the peer of the tunnel"))
        self.assertEqual(report.ways[f"5111 wg-master {self.NEAR}"], ("ok", self.FAR))

        handle = re.search(r"@masters .*# handle (\d+)$", nft("-a", "list", "table", "inet", "runeld"),
                           re.MULTILINE)[1]
        nft("delete", "rule", "inet", "runeld", "output", "handle", handle)
        self.assertEqual(self.check().status, 0)
        self.run_tool("wg-quick", "down", "wg-master")
        report = self.check()
        self.assertEqual((report.status, report.why["tunnel"]),
                         (1, f"the way to {self.FAR} is not a tunnel"))
        self.assertEqual(report.ways[f"5112 {self.FAR} by mgmt0"],
                         ("OPEN", "every host on the way, or with this address"))
        load(self.rules())
        report = self.check()
        self.assertEqual((report.status, report.protections["tunnel"]), (0, "no"))
        self.assertEqual(self.check("--require", "tunnel").status, 1)
        self.assert_stops(daemon)

    def test_a_tunnel_without_a_handshake_is_not_up(self):
        self.run_tool("ip", "netns", "exec", "master", "wg-quick", "down", "wg-devices")
        self.run_tool("wg-quick", "down", "wg-master")
        self.run_tool("wg-quick", "up", "wg-master")
        daemon = self.daemon("-i", self.FAR)
        report = self.check()
        self.assertEqual(report.why["tunnel"], "WireGuard, wg-master: no handshake yet")
        self.assertEqual(report.ways[f"5112 {self.FAR} by wg-master"],
                         ("ok", "the peer of the tunnel, while it is up"))
        run = self.run_script("check", env=self.replaced("wg", "echo key $(($(date +%s) - 181))"))
        self.assertRegex(run.stdout, r"  no    tunnel    WireGuard, wg-master: the last handshake was 18\d s")
        self.assert_stops(daemon)


class LocalEndTest(CheckCase, Stunnel):
    def test_the_local_end_of_a_tunnel_is_named(self):
        self.start_device()
        daemon = self.daemon()
        report = self.check("--require", "tunnel")
        number = self.tunnels[0].pid
        self.assertEqual((report.status, report.why["tunnel"]),
                         (0, f"stunnel (process {number}) answers on 127.0.0.1:5112"))
        self.assertIn(f"Port 5112: 127.0.0.1: stunnel (process {number}, root)\n", report.text)
        self.tunnels[0].kill()
        self.tunnels[0].wait()
        report = self.check("--require", "tunnel")
        self.assertEqual((report.status, report.protections["tunnel"]), (1, "no"))
        self.assertEqual(self.check().status, 0)
        self.assert_stops(daemon)
