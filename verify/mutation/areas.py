# SPDX-License-Identifier: Apache-2.0
"""The parts of the tree that are mutated apart, each with its own build and its own tests."""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Area:
    name: str
    sources: tuple   # directories whose sources are mutated
    options: tuple   # of CMake
    targets: tuple   # built besides the tests
    unit_tests: str  # regular expression: the directories of the GoogleTest programs
    modules: dict    # directory of sources -> modules of the end-to-end tests that may detect a change
    slow: tuple = ()   # classes of these modules that would take too long, or only vary others
    other: tuple = ()  # directories below `sources` that are not mutated

    def contains(self, path):
        return (path.startswith(self.sources) and path.endswith(".cc") and
                not path.startswith(self.other))

    def modules_of(self, path):
        """The end-to-end modules of the deepest directory above @p path that has an entry."""
        parts = path.split("/")[:-1]
        while parts:
            if "/".join(parts) in self.modules:
                return self.modules["/".join(parts)]
            parts.pop()
        return ()


CLOCKS = ("fast_clock", "tenfold_clock", "hundredfold_clock")


def ctl(*names):
    return tuple(f"test_runelctl_{name}" for name in names)


DAEMON = Area(
    "daemon", ("src/", "lib/"), ("-DRUNELD_CTL=OFF", "-DRUNELD_CLIENT=OFF"),
    ("runeld_base", "runeld_system", "runeld_server", "runeld_connections", "runeld_agent",
     "runeld_options_scan", "runeld_protocol", "device_linux", "runeld", *CLOCKS),
    r"(?:unit|contract)/\w+", {})

# In batches of sources, because most of the build time goes into header-only libraries.
RUNELCTL = Area(
    "runelctl", ("client/", "runelctl/"), ("-DRUNELD_CTL=ON", "-DRUNELD_UNITY=ON"),
    ("runel_objects", "runelctl_inventory", "runelctl_app", "runelctl", "runeld", *CLOCKS),
    r"unit/(?:client|control|runelctl)", {
        "client/blocking": ctl("files", "tasks"),
        "client/core": ctl("tasks", "faults", "retry", "files", "hostile_device", "plan"),
        "client/fleet": ctl("many", "retry", "dry_run"),
        "client/io": ctl("faults", "limits", "many", "pipes", "retry"),
        "client/jobs": ctl("jobs"),
        "client/master": ctl("master"),
        "client/transfer": ctl("files", "hostile_device", "faults", "plan", "pipes"),
        "client/transfer/delta": ctl("delta"),
        "client/transfer/pull": ctl("files", "hostile_device", "faults", "plan"),
        "client/transfer/push": ctl("files", "faults", "plan", "delta", "hostile_device"),
        "runelctl": ctl("tasks", "pipes"),
        "runelctl/cli": ctl("tasks", "many", "inventory", "dry_run", "limits", "retry", "pipes"),
        "runelctl/commands": ctl("tasks", "files", "jobs", "plan", "dry_run", "limits", "retry",
                                 "many", "terminal"),
        "runelctl/control": ctl("master", "terminal"),
        "runelctl/fleet": ctl("many", "jobs", "limits", "terminal", "pipes"),
        "runelctl/inventory": ctl("inventory", "many"),
        "runelctl/output": ctl("terminal", "tasks", "many", "pipes", "files"),
        "runelctl/probe": ctl("probe"),
        "runelctl/shell": ctl("shell", "completion"),
    },
    ("AThousand", "CutOff", "Memory", "PullWithoutOpenat2", "PushWithAFilterOfSystemCalls", "Size",
     "StreamWithBash", "StreamWithBusybox"),
    ("client/examples/",))


def area_of(modules):
    """The area of the directories @p modules: by default the daemon's."""
    for area in (DAEMON, RUNELCTL):
        if all(f"{module}/".startswith(area.sources) for module in modules):
            return area
    raise SystemExit("mutate: src and lib, and client and runelctl, are run apart")
