"""Processes of a lab seen from outside: telling them from others that got their pid, ending them,
and running commands among them."""

import contextlib
import os
import select
import shutil
import signal
import subprocess

from .waiting import LabError, Overdue

TOOLS = ("unshare", "nsenter", "setpriv", "mount", "ip", "corosync", "dbus-daemon")
SEARCH_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


def check_requirements():
    """Raises LabError if this process cannot make a lab on this machine."""
    if os.geteuid() != 0:
        raise LabError("a lab makes namespaces and mounts: run it as root")
    missing = [tool for tool in TOOLS if not shutil.which(tool, path=SEARCH_PATH)]
    if missing:
        raise LabError(f"not installed: {', '.join(missing)}; try scripts/install-packages lab")


class Process:
    """A handle on one process, which stays the handle on that one when its pid is used again."""

    def __init__(self, pid, started=None):
        """`started` is what another handle had there. Raises LabError if that process is gone."""
        try:
            self._descriptor = os.pidfd_open(pid)
        except OSError as error:
            raise LabError(f"process {pid}: {error.strerror}") from error
        self.pid = pid
        self.started = _start_time(pid)
        if self.started is None or started not in (None, self.started):
            self.close()
            raise LabError(f"process {pid} has ended")

    def ended(self, limit=0.0):
        """Waits up to `limit` seconds for the end."""
        return bool(select.select([self._descriptor], [], [], limit)[0])

    def end(self, limit=30.0):
        """Kills the process. When it is pid 1 of a namespace, all others in there are gone, too."""
        with contextlib.suppress(ProcessLookupError):
            signal.pidfd_send_signal(self._descriptor, signal.SIGKILL)
        if not self.ended(limit):
            raise Overdue(f"process {self.pid} was killed, and is still there after {limit:g} s")

    def close(self):
        os.close(self._descriptor)


def children_of(parent):
    """The pids of its child processes; none when it has ended: they are then, or soon will be, those
    of the first process of its pid namespace."""
    try:
        with open(f"/proc/{parent}/task/{parent}/children", encoding="ascii") as file:
            return [int(pid) for pid in file.read().split()]
    except (FileNotFoundError, ProcessLookupError):
        return []


def _start_time(pid):
    """Clock ticks from boot to the start of the process, or None if there is none."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            return int(file.read().rpartition(")")[2].split()[19])
    except (FileNotFoundError, ProcessLookupError):
        return None


def environment(extra=()):
    """The variables of processes in a lab: nothing of the caller's session, plus `extra`."""
    return {"PATH": SEARCH_PATH, "LANG": "C.UTF-8", **dict(extra)}


def inside(pid, argv):
    """The command line that runs `argv` in the namespaces of the process `pid`."""
    # Root and working directory, too: the lab may live in a chroot.
    spaces = ("--mount", "--uts", "--ipc", "--net", "--pid", "--root", "--wd")
    return ["nsenter", "--target", str(pid), *spaces, "--", *argv]


def start_inside(pid, argv, **options):
    """subprocess.Popen of `argv` in the namespaces of `pid`; it dies with the Popen's process."""
    options.setdefault("stdin", subprocess.DEVNULL)
    options.setdefault("text", True)
    options["env"] = environment(options.pop("env", ()))
    return subprocess.Popen(inside(pid, ["setpriv", "--pdeathsig", "KILL", *argv]), **options)


def run_inside(pid, argv, limit, check=True, **options):
    """Runs `argv` in the namespaces of `pid` to its end and returns a subprocess.CompletedProcess.

    Raises LabError when it takes longer than `limit` seconds or, with `check`, fails.
    """
    with start_inside(
        pid, argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options
    ) as process:
        try:
            output, errors = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired as error:
            process.kill()
            raise Overdue(f"not ended within {limit:g} s: {argv}") from error
    if check and process.returncode != 0:
        raise LabError(f"status {process.returncode} from {argv}\n{output}{errors}".rstrip())
    return subprocess.CompletedProcess(argv, process.returncode, output, errors)
