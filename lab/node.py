"""One node of a lab, seen from outside: its daemon, its services, its files, its cable."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
from typing import NamedTuple

from . import corosync, filesystem
from .bus import Bus
from .control import ask, listener_pid
from .daemon import STARTING, WAITING
from .journal import Journal
from .network import MAIN
from .processes import run_inside, start_inside
from .waiting import LabError, now, wait_until

BOOT_LIMIT = 60.0
DAEMON, COROSYNC, BUS, RECORDER = "daemon", "corosync", "bus", "recorder"
# Of a daemon: the unit may hold it back until its corosync has run for 15 s.
START_LIMIT = 30.0


class Signal(NamedTuple):
    time: float
    name: str
    arguments: list


class Node:
    """`number` counts from 1 in the lab; `id` is the node id in corosync, mostly the same."""

    def __init__(self, lab, number, facts):
        self.lab = lab
        self.number = number
        self.id = facts["id"]
        self.name = facts["name"]
        self.address = facts["address"]
        self.package = facts.get("package")
        self.bus = Bus(lambda: self.root)
        self._journals = {}

    def __repr__(self):
        return self.name

    # The daemon

    def start(self, *arguments, wait=True, limit=START_LIMIT):
        """Starts the daemon in the foreground with further `arguments`.

        With `wait` comes back when it has its name on the bus; raises LabError if it ends first.
        """
        self._ask("start", service=DAEMON, arguments=arguments)
        if wait:
            self.wait_registered(limit)

    def wait_registered(self, limit=START_LIMIT):
        def registered():
            daemon = self.status()[DAEMON]
            if not daemon["pid"] and daemon["manager"] not in (WAITING, STARTING):
                raise LabError(f"the daemon of {self} ended, status {self.exit_status()}; its last "
                               f"lines:\n{self.last_lines()}")
            return self.bus.has_daemon()

        self._wait(registered, limit, f"the daemon of {self} has its name on the bus")

    def stop(self, limit=10.0):
        """Has the service manager stop the daemon (SIGTERM) or call off its start.

        Comes back when all is done that follows; returns the exit status, or None if it did not run.
        """
        def stopped():
            daemon = self.status()[DAEMON]
            return not daemon["pid"] and not daemon["manager"]

        ran = self._ask("stop")
        self._wait(stopped, limit, f"the daemon of {self} is stopped")
        return self.exit_status() if ran else None

    def kill(self, number=signal.SIGKILL, limit=10.0):
        """Sends the daemon a signal that ends it; returns its exit status (-number for a signal).

        Comes back when what the service manager does at its end is done.
        """
        ends = self.status()[DAEMON]["ends"]
        self.signal(number)
        return self.wait_ended(limit, ends=ends)

    def signal(self, number, service=DAEMON):
        self._ask("signal", service=service, number=int(number))

    def pause(self, service=DAEMON):
        """Stops the process in its tracks (SIGSTOP) and comes back when it stands still."""
        self.signal(signal.SIGSTOP, service)
        stat = self.file(f"/proc/{self.status()[service]['pid']}/stat")
        self._wait(
            lambda: stat.read_text().rpartition(")")[2].split()[0] == "T",
            5.0, f"{service} of {self} is stopped",
        )

    def resume(self, service=DAEMON):
        self.signal(signal.SIGCONT, service)

    def status(self):
        """For each service its "pid" (None: not running), its last exit "status", when it "ended"
        and how many "ends" are over; for the daemon, what its "manager" does, see daemon.py."""
        return self._ask("status")

    def alive(self, service=DAEMON):
        return self.status()[service]["pid"] is not None

    def exit_status(self):
        """How the daemon ended (negative: by that signal); None while it runs or never ran."""
        return self.status()[DAEMON]["status"]

    def wait_ended(self, limit=10.0, service=DAEMON, ends=None):
        """Waits until a service is down or has ended more than `ends` times; returns its status."""
        def ended():
            state = self.status()[service]
            return state["pid"] is None if ends is None else state["ends"] > ends

        self._wait(ended, limit, f"{service} of {self} has ended")
        return self.status()[service]["status"]

    def supervise(self, rules=None):
        """What the service manager does at starts and ends of the daemon; see unit.py and daemon.py."""
        self.lab.ask("supervise", name=self.name, rules=rules)
        if self.is_on():
            self._ask("supervise", rules=rules)

    # What it said

    def take_output(self):
        """Comes back when all lines that were written so far have got their times."""
        with contextlib.suppress(LabError):  # A node that is off has no more to say.
            self._ask("take_output")

    @property
    def log(self):
        """The daemon's lines since the lab's last reset, to the very last, as Entry(time, text)."""
        self.take_output()
        return self.journal(DAEMON).entries(self.lab.mark)

    def last_lines(self, count=15):
        """The end of `log` as a text; for messages."""
        lines = [f"{entry.time:.3f}  {entry.text}" for entry in self.log[-count:]]
        return "\n".join(lines or ["(none)"])

    def wait_log(self, pattern, limit=10.0, since=None):
        """The first line since the time `since` (the last reset) that the expression matches."""
        since = self.lab.mark if since is None else since
        return self.journal(DAEMON).wait(pattern, limit, since, self.lab.diagnosis)

    @property
    def signals(self):
        """The daemon's D-Bus signals since the last reset, as Signal(time, name, arguments)."""
        return self.signals_since(self.lab.mark)

    def signals_since(self, since):
        entries = self.journal("signals").entries(since)
        parsed = ((entry.time, json.loads(entry.text)) for entry in entries)
        return [
            Signal(time, text["signal"], text["arguments"])
            for time, text in parsed
            if text["signal"] != "recording"
        ]

    def wait_signal(self, name, *arguments, limit=10.0, since=None):
        """The first signal `name` with these first arguments since `since` (the last reset)."""
        since = self.lab.mark if since is None else since
        wanted = list(arguments)

        def find():
            for entry in self.signals_since(since):
                if entry.name == name and entry.arguments[: len(wanted)] == wanted:
                    return entry
            return None

        return self._wait(find, limit, f"signal {name}{arguments} on {self}")

    def journal(self, name):
        """One of "daemon", "signals", "corosync" and "bus"."""
        if name not in self._journals:
            self._journals[name] = Journal(f"{self._directory}/{name}.log")
        return self._journals[name]

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
        return run_inside(self.pid, argv, limit, check, **options)

    def ctl(self, *arguments, **options):
        """Runs duskvalectl on the node; the options are those of `run`."""
        return self.run([self.ctl_path, *arguments], **options)

    @property
    def ctl_path(self):
        """duskvalectl, as the node has it."""
        return filesystem.PACKAGED_CTL if self.package else self.lab.ctl

    def popen(self, argv, **options):
        """Starts a command on the node beside the caller; see processes.start_inside."""
        return start_inside(self.pid, argv, **options)

    def file(self, path):
        """The pathlib.Path by which the node's file `path` is reached from here."""
        return pathlib.Path(self.root + path)

    def write_step(self, name, script):
        """Puts a step program into the run directory, whole at once: a sequence may be running."""
        step = self.file(f"{filesystem.RUN_DIRECTORY}/{name}")
        new = step.with_name(f".{name}.new")
        new.write_text(script, encoding="utf-8")
        new.chmod(0o755)
        new.rename(step)

    def add_device(self, name, location="", hardware_id=""):
        """Makes the entry of a device in the device tree and returns its path; reports nothing."""
        path = self._device_path(name)
        entry = self.file(path)
        entry.mkdir(parents=True)
        (entry / "location").write_text(location + "\n", encoding="utf-8")
        (entry / "hardware_id").write_text(hardware_id + "\n", encoding="utf-8")
        return path

    def remove_device(self, name):
        path = self._device_path(name)
        shutil.rmtree(self.file(path).parent)
        return path

    def plug(self, name, location="", hardware_id=""):
        """Attaches a device and reports it to the daemon."""
        path = self.add_device(name, location, hardware_id)
        self.call("LumacrateHotplug", True, path, hardware_id, location)

    def unplug(self, name):
        """Takes a device away and reports that to the daemon."""
        self.call("LumacrateHotplug", False, self.remove_device(name), "", "")

    # Corosync, the bus, power and the cable

    def ring(self):
        """The node ids that this node's corosync has in its ring; empty while it does not run."""
        if not self.alive(COROSYNC):
            return set()
        views = corosync.views(self.journal(COROSYNC).entries())
        return views[-1][1] if views else set()

    def kill_corosync(self):
        ends = self.status()[COROSYNC]["ends"]
        self.signal(signal.SIGKILL, COROSYNC)
        self.wait_ended(service=COROSYNC, ends=ends)

    def start_corosync(self):
        """Starts corosync; Lab.wait_ring says when it has found the others."""
        self._ask("start", service=COROSYNC)

    def start_bus(self):
        since = now()
        self._ask("start", service=BUS)
        self._ask("start", service=RECORDER)
        self._wait_recording(since)

    def cut(self):
        """Cuts the node's cable; the others and the node itself notice by their time-outs."""
        self.lab.ask("cable", name=self.name, whole=False)

    def heal(self):
        """Mends the cable, and ends a partition for this node."""
        self.lab.ask("cable", name=self.name, whole=True)
        self.lab.ask("assign", name=self.name, side=MAIN)

    def power_off(self):
        """Ends everything on the node at once, as a power cut does. Its files in /etc stay."""
        with self._told_when_off():
            self.lab.ask("power_off", name=self.name)
        self._wait(lambda: not self.is_on(), 30.0, f"{self} is off")

    def power_on(self, wait=True):
        """Starts the node, with corosync and without the daemon. A repaired cable comes with it."""
        since = now()
        self.lab.ask("power_on", name=self.name)
        if wait:
            self.wait_booted(since)

    def restore(self):
        """Brings the node back to what it was after the lab's start, but waits for no ring."""
        if not self.is_on():
            self.power_on()
        # First: the service manager may be about to start the daemon again.
        self.supervise()
        for service in (BUS, COROSYNC):
            if self.alive(service):
                self.resume(service)
        if not self.alive(BUS):
            self.start_bus()
        if not self.alive(COROSYNC):
            self.start_corosync()
        if self.alive():
            self.kill()
        self._wait(lambda: not self.status()[DAEMON]["manager"], 60.0, f"{self} is done")
        self._wait(lambda: self._ask("sweep") == 0, 10.0, f"nothing is left of the steps of {self}")
        self.lab.ask("restore_addresses", name=self.name)
        for directory in (filesystem.SETTINGS, filesystem.RUN_DIRECTORY, filesystem.DEVICES):
            for entry in self.file(directory).iterdir():
                if entry.is_dir():
                    shutil.rmtree(entry)
                else:
                    entry.unlink()

    def is_on(self):
        return self.lab.node_states()[self.name]["on"]

    def wait_booted(self, since):
        """Waits until the services of a node that was powered on after `since` can be used: its
        corosync is in a ring then, be it alone."""
        def booted():
            if not self.is_on():
                text = pathlib.Path(f"{self._directory}/machine.log").read_text(encoding="utf-8")
                raise LabError(f"{self} did not start:\n{text}")
            return os.path.exists(self._control)

        self._wait(booted, BOOT_LIMIT, f"{self} has started")
        # It answers when its files are there; a package takes its time.
        if RECORDER in self._ask("status", limit=BOOT_LIMIT):
            self._wait_recording(since)
            corosync_log = self.journal(COROSYNC)
            self._wait(lambda: corosync.views(corosync_log.entries(since)), 30.0,
                       f"corosync of {self} is in a ring")

    @property
    def pid(self):
        """The node's first process, as seen from here."""
        with self._told_when_off():
            return listener_pid(self._control)

    @property
    def root(self):
        return f"/proc/{self.pid}/root"

    @property
    def _directory(self):
        return f"{self.lab.directory}/{self.name}"

    @property
    def _control(self):
        return f"{self._directory}/control"

    def _device_path(self, name):
        return f"{filesystem.DEVICES}/{name}/lumacrates:{name}"

    def _ask(self, operation, **arguments):
        with self._told_when_off():
            return ask(self._control, operation, **arguments)

    @contextlib.contextmanager
    def _told_when_off(self):
        """A node that is off answers nothing: says that rather than which socket it was."""
        try:
            yield
        except LabError as error:
            if not self.is_on():
                raise LabError(f"{self} is off") from error
            raise

    def _wait(self, condition, limit, what):
        return wait_until(condition, limit, what, explain=self.lab.diagnosis)

    def _wait_recording(self, since):
        self.journal("signals").wait('"recording"', 30.0, since)
