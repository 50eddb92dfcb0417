"""Running commands in the namespaces of a lab and of its nodes."""

import os
import shutil
import subprocess

from .waiting import LabError, Overdue

TOOLS = (
    "unshare", "nsenter", "setpriv", "mount", "ip", "corosync", "dbus-daemon", "systemctl", "meson"
)
SEARCH_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


def check_requirements():
    """Raises LabError if this process cannot make a lab on this machine."""
    if os.geteuid() != 0:
        raise LabError("a lab makes namespaces and mounts: run it as root")
    missing = [tool for tool in TOOLS if not shutil.which(tool, path=SEARCH_PATH)]
    if missing:
        raise LabError(f"not installed: {', '.join(missing)}; try scripts/install-packages lab")


def environment(extra=()):
    """The variables of processes in a lab: nothing of the caller's session, plus `extra`."""
    return {"PATH": SEARCH_PATH, "LANG": "C.UTF-8", "SYSTEMD_PAGER": "",
            "DEBIAN_FRONTEND": "noninteractive", **dict(extra)}


def inside(pid, argv, spaces=("--all",)):
    """The command line that runs `argv` in the namespaces of the process `pid`."""
    # Root and working directory, too: the lab may live in a chroot.
    return ["nsenter", "--target", str(pid), *spaces, "--root", "--wd", "--", *argv]


def start_inside(pid, argv, spaces=("--all",), **options):
    """subprocess.Popen of `argv` in the namespaces of `pid`; it dies with the Popen's process."""
    options.setdefault("stdin", subprocess.DEVNULL)
    options.setdefault("text", True)
    options["env"] = environment(options.pop("env", ()))
    argv = ["setpriv", "--pdeathsig", "KILL", *map(str, argv)]
    return subprocess.Popen(inside(pid, argv, spaces), **options)


def run_inside(pid, argv, limit, check=True, **options):
    """Runs `argv` in the namespaces of `pid` to its end and returns a subprocess.CompletedProcess.

    Raises LabError when it takes longer than `limit` seconds or, with `check`, fails.
    """
    with start_inside(
        pid, argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, errors="replace", **options
    ) as process:
        try:
            output, errors = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired as error:
            process.kill()
            raise Overdue(f"not ended within {limit:g} s: {argv}") from error
    if check and process.returncode != 0:
        raise LabError(f"status {process.returncode} from {argv}\n{output}{errors}".rstrip())
    return subprocess.CompletedProcess(argv, process.returncode, output, errors)
