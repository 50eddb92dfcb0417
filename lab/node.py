"""One node of a lab, seen from outside: its daemon and other units, its journal, files, power and
cable."""

import pathlib
import re
import shutil
import signal
import weakref

from . import corosync, paths
from .bus import Bus
from .host import PROGRAMS, SWITCH
from .journal import Journal
from .network import interface_addresses_of, link_address_of
from .paths import COROSYNC, DAEMON, KEEPER, SIGNALS
from .processes import run_inside, start_inside
from .waiting import LabError, now, wait_until

BOOT_LIMIT = 60.0
STOP_LIMIT = 60.0
# Of a start: the unit may hold the daemon back until its corosync has run for 15 s.
START_LIMIT = 40.0
# For the unit (`drop_in`), when a daemon that has ended is to stay down.
NO_RESTART = "[Service]\nRestart=no\n"
_RECORDING = "^Monitoring bus message stream"


class Node:
    """`number` counts from 1 in the lab; `id` is the node id in corosync, mostly the same."""

    def __init__(self, lab, number, facts):
        self.lab = lab
        self.number = number
        self.id = facts["id"]
        self.name = facts["name"]
        self.address = facts["address"]
        self.image = facts["image"]
        self.bus = Bus(lambda: self.root)
        self._journal = None
        self._programs = weakref.WeakSet()

    def __repr__(self):
        return self.name

    # Its units, the daemon before all

    def systemctl(self, *arguments, **options):
        """As its operator would call it; the options are those of `run`."""
        return self.run(["systemctl", *arguments], **options)

    def show(self, name, unit=DAEMON):
        """A property of the unit, as systemd has it."""
        return self.systemctl("show", "--value", f"--property={name}", unit).stdout.rstrip("\n")

    def pid(self, unit=DAEMON):
        """Of the unit's main process, as the node sees it; 0 if there is none."""
        return int(self.show("MainPID", unit))

    def is_active(self, unit=DAEMON):
        return self.show("ActiveState", unit) == "active"

    def start(self, *arguments, drop_in=""):
        """As Lab.start, on this node."""
        self.lab.start(*arguments, numbers=[self.number], drop_in=drop_in)

    def stop(self):
        """Stops the daemon for good, and comes back when its steps have run with "stop"."""
        self.systemctl("stop", DAEMON, limit=STOP_LIMIT)

    def kill(self, number=signal.SIGKILL, unit=DAEMON):
        """Ends the unit's main process with a signal; what follows is the matter of its systemd."""
        since = now()
        self.signal(number, unit)
        return self.wait_exit(since, unit)

    def signal(self, number, unit=DAEMON):
        self.systemctl("kill", "--kill-who=main", f"--signal={int(number)}", unit)

    def pause(self, unit=DAEMON):
        """Stops the process in its tracks (SIGSTOP) and returns when it has stopped."""
        self.signal(signal.SIGSTOP, unit)
        stat = self.file(f"/proc/{self.pid(unit)}/stat")
        self._wait(
            lambda: stat.read_text().rpartition(")")[2].split()[0] == "T",
            5.0, f"{unit} of {self} is stopped",
        )

    def resume(self, unit=DAEMON):
        self.signal(signal.SIGCONT, unit)

    def exits(self, since=None, unit=DAEMON):
        """How the unit's main process has ended since the time `since` (the last reset)."""
        return self.journal.exits(unit, self._since(since))

    def wait_exit(self, since=None, unit=DAEMON, limit=10.0):
        """The first of `exits`."""
        [first, *_] = self._wait(lambda: self.exits(since, unit), limit, f"{unit} of {self} ends")
        return first

    def write_drop_in(self, text, arguments=()):
        """Adds the lines `text` to the daemon's unit, and `arguments` to its command, from the next
        reload of systemd until the lab's next reset."""
        if arguments:
            unit = self.file(paths.UNIT_FILE).read_text(encoding="utf-8")
            shipped = re.search("^ExecStart=.*$", unit, re.MULTILINE)[0]
            text += f"\n[Service]\nExecStart=\n{shipped} {' '.join(arguments)}\n"
        file = self.file(paths.DROP_IN)
        file.parent.mkdir(exist_ok=True)
        file.write_text(text, encoding="utf-8")

    # What it said

    @property
    def journal(self):
        if self._journal is None:
            self._journal = Journal(self.journal_path)
        return self._journal

    @property
    def journal_path(self):
        """Its directory, as seen from here, also when the node is off."""
        return self._disk / "var/log/journal"

    @property
    def log(self):
        """The daemon's lines and those of its unit's other programs since the lab's last reset."""
        self.sync()
        return self.journal.entries(self.lab.mark, DAEMON)

    def sync(self):
        """Comes back when all that has been written is in the journal."""
        if self.is_on():
            self.run(["journalctl", "--sync"])

    def last_lines(self, count=25):
        """The last that daemon and keeper have logged, as a text; for messages."""
        entries = self.log + self.journal.entries(self.lab.mark, KEEPER)
        lines = [f"{entry.time:.3f}  {entry.text}"
                 for entry in sorted(entries, key=lambda entry: entry.time)[-count:]]
        return "\n".join(lines or ["(none)"])

    def wait_log(self, pattern, limit=10.0, since=None, unit=DAEMON):
        """The first line since the time `since` (the last reset) that the expression matches."""
        return self._wait(lambda: self.journal.find(pattern, self._since(since), unit),
                          limit, f"a line of {unit} on {self} that matches {pattern!r}")

    @property
    def signals(self):
        """The daemon's D-Bus signals since the last reset."""
        return self.signals_since(self.lab.mark)

    def signals_since(self, since):
        return self.journal.signals(since)

    def wait_signal(self, name, *arguments, limit=10.0, since=None):
        """The first signal `name` with these first arguments since `since` (the last reset)."""
        wanted = list(arguments)

        def find():
            return next((found for found in self.signals_since(self._since(since))
                         if found.name == name and found.arguments[: len(wanted)] == wanted), None)

        return self._wait(find, limit, f"signal {name}{arguments} on {self}")

    # Its D-Bus object

    def call(self, method, *arguments, limit=5.0):
        return self.bus.call(method, *arguments, limit=limit)

    def get(self, name, limit=5.0):
        return self.bus.get(name, limit)

    def set(self, name, value, limit=5.0):
        self.bus.set(name, value, limit)

    # Commands and files

    def run(self, argv, limit=30.0, check=True, **options):
        """Runs a command on the node; see processes.run_inside."""
        return run_inside(self.init, argv, limit, check, **options)

    def popen(self, argv, **options):
        """Starts a command on the node beside the caller; see processes.start_inside."""
        process = start_inside(self.init, argv, **options)
        self._programs.add(process)
        return process

    def duskvalectl(self, *arguments, **options):
        """Runs duskvalectl on the node; the options are those of `run`."""
        return self.run(["duskvalectl", *arguments], **options)

    def file(self, path):
        """The pathlib.Path of the node's file `path` as seen from here, also when it is off."""
        root = self.root if self.is_on() else self._disk
        return pathlib.Path(root, path.lstrip("/"))

    def write_step(self, name, script):
        """Puts a step program into the run directory, whole at once: a sequence may be running."""
        step = self.file(f"{paths.RUN_DIRECTORY}/{name}")
        new = step.with_name(f".{name}.new")
        new.write_text(script, encoding="utf-8")
        new.chmod(0o755)
        new.rename(step)

    def write_watch(self, name, script):
        """Gives the keeper a watch program."""
        program = self.file(f"{paths.WATCH_DIRECTORY}/{name}")
        program.parent.mkdir(parents=True, exist_ok=True)
        program.write_text(script, encoding="utf-8")
        program.chmod(0o755)

    def add_device(self, name, location="", hardware_id=""):
        """Makes the entry of a device in the device tree and returns its path; reports nothing."""
        path = self._device_path(name)
        entry = self.file(path)
        entry.mkdir(parents=True)
        (entry / "location").write_text(location + "\n", encoding="utf-8")
        (entry / "hardware_id").write_text(hardware_id + "\n", encoding="utf-8")
        return path

    def remove_device(self, name):
        shutil.rmtree(self.file(self._device_path(name)).parent)

    # Corosync, power and the cable

    def ring(self):
        """The node ids that this node's corosync has in its ring; empty while it does not run."""
        if not self.is_on():
            return set()
        views = corosync.views(self.journal.entries(0.0, COROSYNC))
        return views[-1][1] if views else set()

    def kill_corosync(self):
        self.kill(unit=COROSYNC)

    def start_corosync(self):
        """Starts corosync, and with it the daemon; Lab.wait_ring says when it found the others."""
        self.systemctl("start", COROSYNC)

    def cut(self):
        """Cuts the node's cable; the others and the node itself notice by their time-outs."""
        side, _ = self.lab.host.cable(self.name)
        self.lab.host.set_cable(self.name, side, "down")

    def deafen(self):
        """What the node sends arrives; what is sent to it does not, on any of its addresses."""
        self.lab.host.set_deaf(link_address_of(self.number), True)

    def heal(self):
        """Repairs the cable in both directions, and ends a partition for this node."""
        self.lab.host.set_deaf(link_address_of(self.number), False)
        self.lab.host.set_cable(self.name, SWITCH, "up")

    def power_off(self):
        """Ends everything on the node at once, as a power cut does. Its disk stays."""
        self.lab.host.unplug(self.name)
        self.lab.host.power_off(self.name)
        self._wait(lambda: not self.is_on(), 30.0, f"{self} is off")

    def power_on(self, wait=True):
        """Boots the node. With `wait` comes back when its bus answers."""
        if self.is_on():
            raise LabError(f"{self} is on already")
        since = now()
        addresses = interface_addresses_of(self.number)
        self.lab.host.boot(self.name, addresses, link_address_of(self.number))
        if wait:
            self.wait_booted(since)

    def reboot(self):
        """As its operator would do it."""
        since, before = now(), self.init
        self.systemctl("reboot", check=False)  # It may be cut short itself.

        def ended():
            # A shutdown stops all processes before it ends them. nsenter(1) stops with its child,
            # and then leaves it a zombie, for which the shutdown waits 90 s.
            for process in self._programs:
                process.send_signal(signal.SIGCONT)
            return self.lab.host.first_process(self.name) not in (None, before)

        self._wait(ended, BOOT_LIMIT, f"{self} has ended")
        self.wait_booted(since)

    def begin_reset(self):
        """Makes the node what it was after its first boot, without the daemon; returns a Popen."""
        with open(PROGRAMS / "reset", encoding="utf-8") as script:
            return self.popen(["sh", "-s", interface_addresses_of(self.number)], stdin=script)

    def is_on(self):
        return self.lab.host.is_on(self.name)

    def wait_booted(self, since):
        """Waits until the bus of a node that was booted after `since` works, and is recorded."""
        def booted():
            if not self.is_on():
                text = (self._directory / "boot.log").read_text(encoding="utf-8")
                raise LabError(f"{self} did not start:\n{text}")
            return self.journal_path.is_dir() and self.journal.find(_RECORDING, since, SIGNALS)

        self._wait(booted, BOOT_LIMIT, f"{self} has started")

    @property
    def init(self):
        """The node's first process, as seen from here."""
        init = self.lab.host.first_process(self.name)
        if init is None:
            raise LabError(f"{self} is off")
        return init

    @property
    def root(self):
        return f"/proc/{self.init}/root"

    @property
    def _directory(self):
        return self.lab.host.directory / self.name

    @property
    def _disk(self):
        return self._directory / "root"

    def _since(self, since):
        return self.lab.mark if since is None else since

    def _device_path(self, name):
        return f"{paths.DEVICES}/{name}/lumacrates:{name}"

    def _wait(self, condition, limit, what):
        return wait_until(condition, limit, what, explain=self.lab.diagnosis)
