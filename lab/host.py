"""The process that owns a lab (machine/host): how to start, find and enter it."""

import contextlib
import json
import os
import pathlib
import re
import select
import signal
import subprocess
import tempfile

from .processes import environment, run_inside
from .waiting import LabError, Overdue

PROGRAMS = pathlib.Path(__file__).with_name("machine")
SWITCH = "switch"  # the bridge that the nodes' cables are plugged into

_DIRECTORY = "/run/lab"
_SPACES = ("--mount", "--net", "--pid")
_LIMIT = 60.0

_MAKE_DISK = """
mkdir -p "$0/root" "$0/upper" "$0/work"
mount -t overlay -o "lowerdir=$1,upperdir=$0/upper,workdir=$0/work" overlay "$0/root"
"""
_BOOT = """
mkdir -p "$0"
echo 0 >"$0/cgroup.procs"
log=$1
shift
setsid "$@" </dev/null >>"$log" 2>&1 &
"""


def _is_first(pid):
    """Is it the first of its process namespace? The lab's programs are in the group, too."""
    with contextlib.suppress(OSError):
        status = pathlib.Path("/proc", pid, "status").read_text(encoding="utf-8")
        return re.search(r"^NSpid:.*\s1$", status, re.MULTILINE) is not None
    return False


class Host:
    def __init__(self, pid, process=None):
        """`process`, its input and its output, if this process has started it."""
        self.pid = pid
        self._handle = os.pidfd_open(pid)
        self._process = process

    @classmethod
    def start(cls, name):
        """It ends with this process, however that ends, unless `stay` is called."""
        with tempfile.TemporaryFile("w+") as errors:
            process = subprocess.Popen(
                [PROGRAMS / "host", name], text=True, env=environment(), cwd="/",
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors,
                start_new_session=True,  # Ctrl-C is for the caller, who decides what becomes of it.
            )
            with process.stdout as output:
                pid = output.readline()
            if not pid:
                process.wait()
                errors.seek(0)
                raise LabError(f"the lab '{name}' did not start: {errors.read().strip()}")
        return cls(int(pid), process)

    @classmethod
    def find(cls, name):
        """That of the lab `name`, or None if there is none."""
        for pid, found in _hosts():
            if found == name:
                with contextlib.suppress(ProcessLookupError):
                    host = cls(pid)
                    # By now the handle keeps the pid from being used again.
                    if (pid, name) in _hosts():
                        return host
                    os.close(host._handle)
        return None

    def stay(self):
        """It no longer ends with the process that has started it."""
        self._process.stdin.write("stay\n")
        self._process.stdin.close()

    def end(self):
        """Ends it and all that belongs to it; comes back when nothing is left."""
        with contextlib.suppress(ProcessLookupError):
            signal.pidfd_send_signal(self._handle, signal.SIGKILL)
        if not select.select([self._handle], [], [], _LIMIT)[0]:
            raise Overdue(f"process {self.pid} was killed, and is still there after {_LIMIT:g} s")
        os.close(self._handle)
        if self._process:
            with contextlib.suppress(BrokenPipeError):
                self._process.stdin.close()
            self._process.wait(_LIMIT)

    @property
    def directory(self):
        """That of the lab's files, as seen from here."""
        return pathlib.Path(f"/proc/{self.pid}/root{_DIRECTORY}")

    def run(self, *argv):
        """Runs a command in its namespaces; raises LabError when that fails."""
        return run_inside(self.pid, [*map(str, argv)], _LIMIT, spaces=_SPACES).stdout

    # Nodes

    def make_image(self, name, source):
        """`source` is the build directory or the package that nodes with this image run."""
        self.run(PROGRAMS / "image", f"{_DIRECTORY}/{name}", source)

    def make_disk(self, name, image):
        """The node's root: over the files of this machine those of the image, and then its own."""
        self.run("sh", "-euc", _MAKE_DISK, f"{_DIRECTORY}/{name}", f"{_DIRECTORY}/{image}/upper:/")

    def boot(self, name, addresses, link_address):
        """Comes back at once."""
        group, log = f"{_DIRECTORY}/cgroup/{name}", f"{_DIRECTORY}/{name}/boot.log"
        self.run("sh", "-euc", _BOOT, group, log, PROGRAMS / "boot", name, addresses, link_address)

    def power_off(self, name):
        """Ends all processes of the node at once."""
        (self.directory / "cgroup" / name / "cgroup.kill").write_text("1", encoding="ascii")

    def pause(self, name, paused):
        """Holds all processes of the node, as a hypervisor does with a virtual machine."""
        (self.directory / "cgroup" / name / "cgroup.freeze").write_text("1" if paused else "0")

    def is_on(self, name):
        """Whether the node runs: from `boot` on, until the last of its processes has ended."""
        with contextlib.suppress(FileNotFoundError):
            events = (self.directory / "cgroup" / name / "cgroup.events").read_text()
            return "populated 1" in events
        return False

    def first_process(self, name):
        """The process id of the node's systemd, as seen from here, or None."""
        procs = self.directory / "cgroup" / name / "init.scope/cgroup.procs"
        with contextlib.suppress(OSError):
            for pid in procs.read_text(encoding="ascii").split():
                if _is_first(pid):
                    return int(pid)
        return None

    # The switch

    def cable(self, name):
        """What the node's cable is plugged into, and "up" or, if it is cut, "down"."""
        return (self.directory / name / "cable").read_text(encoding="ascii").split()

    def set_cable(self, name, side, state):
        """`side` is a bridge: nodes on different ones do not meet. A node may be off."""
        (self.directory / name / "cable").write_text(f"{side} {state}\n", encoding="ascii")
        if side not in self._links("type", "bridge"):
            bridge = ("type", "bridge", "stp_state", "0", "mcast_snooping", "0")
            self.run("ip", "link", "add", side, *bridge)
            self.run("ip", "link", "set", side, "up")
        if f"port-{name}" in self._links():
            self.run("ip", "link", "set", f"port-{name}", "master", side, state)

    def set_deaf(self, link_address, deaf):
        """What is sent to this card goes to the switch itself, which does not want it."""
        entry = (link_address, "dev", SWITCH, "self", "permanent")
        if deaf:
            self.run("bridge", "fdb", "replace", *entry)
        else:
            self.run("sh", "-c", 'bridge fdb delete "$@" 2>/dev/null || :', "sh", *entry)

    def isolate(self, name, isolated):
        """Nodes that are isolated do not meet each other, and still meet all other machines."""
        self.run("bridge", "link", "set", "dev", f"port-{name}", "isolated",
                 "on" if isolated else "off")

    def unplug(self, name):
        """The node's network card has gone, as with its power."""
        if f"port-{name}" in self._links():
            self.run("ip", "link", "delete", f"port-{name}")

    def _links(self, *selection):
        links = json.loads(self.run("ip", "-json", "link", "show", *selection))
        return [link["ifname"] for link in links]


def names():
    """The names of the labs that are up."""
    return sorted(name for _, name in _hosts())


def _hosts():
    """(pid, name) of each lab that was started in the pid namespace of this process."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            argv = (process / "cmdline").read_bytes().decode(errors="replace").split("\0")
            if argv[1:2] and argv[1].endswith("/lab/machine/host") and argv[3:4] == ["holds"]:
                pids = [line for line in (process / "status").read_text().splitlines()
                        if line.startswith("NSpid:")]
                if process.stat().st_uid == 0 and len(pids[0].split()) == 3:
                    found.append((int(process.name), argv[2]))
    return found
