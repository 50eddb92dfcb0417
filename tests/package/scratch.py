"""A machine to install on and to boot: see scratch-machine, which makes it."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from lab.waiting import LabError, wait_until

PROGRAM = pathlib.Path(__file__).with_name("scratch-machine")
BOOT_LIMIT_S = 60.0


def children_of(parent):
    """The pids of its child processes; none when it has ended."""
    try:
        with open(f"/proc/{parent}/task/{parent}/children", encoding="ascii") as file:
            return [int(pid) for pid in file.read().split()]
    except (FileNotFoundError, ProcessLookupError):
        return []


class ScratchMachine:
    """A context; the machine runs in it."""

    def __enter__(self):
        self._directory = tempfile.mkdtemp(prefix="scratch-machine-")
        self._errors = tempfile.TemporaryFile("w+")
        argv = ["setpriv", "--pdeathsig", "TERM", PROGRAM, self._directory]
        self._process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stderr=self._errors)
        try:
            self._wait_booted()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_exception):
        self._process.send_signal(signal.SIGTERM)
        self._process.wait(BOOT_LIMIT_S)
        os.rmdir(self._directory)

    def run(self, *argv, check=True, script=None):
        """Runs a command in there to its end; raises LabError with its output when `check` fails.

        `script` is what it reads. The result has .returncode and .stdout, which holds both outputs.
        """
        enter = ["nsenter", "--target", str(self._first_pid()), "--all", "--root", "--wd"]
        result = subprocess.run(
            [*enter, "--", *map(str, argv)], input=script or "", text=True, errors="replace",
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120, check=False,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "SYSTEMD_PAGER": "",
                 "DEBIAN_FRONTEND": "noninteractive"},
        )
        if check and result.returncode != 0:
            raise LabError(f"status {result.returncode} from {argv}\n{result.stdout}")
        return result

    def output(self, *argv, **options):
        return self.run(*argv, **options).stdout.rstrip("\n")

    def shell(self, script, **options):
        return self.output("sh", "-eu", script=script, **options)

    def path(self, path):
        """A file of the machine, by its name outside."""
        return pathlib.Path(f"/proc/{self._first_pid()}/root/{path}")

    def write(self, path, text, mode=0o644):
        self.path(path).parent.mkdir(parents=True, exist_ok=True)
        self.path(path).write_text(text, encoding="utf-8")
        self.path(path).chmod(mode)

    def copy_in(self, source, path):
        shutil.copyfile(source, self.path(path))

    def reboot(self):
        before = self._first_pid()
        self.run("systemctl", "start", "--no-block", "reboot.target")
        wait_until(lambda: self._first_pid() not in (before, None), BOOT_LIMIT_S, "rebooted")
        self._wait_booted()

    def changes(self):
        """The files and directories that the machine has and the one outside has not."""
        holder = children_of(self._process.pid)[0]
        upper = pathlib.Path(f"/proc/{holder}/root{self._directory}/upper")
        names = ("/" + str(path.relative_to(upper)) for path in upper.rglob("*"))
        return {
            name for name in names
            if not os.path.lexists(name) and os.path.lexists(self.path(name))
        }

    def _wait_booted(self):
        def state():
            if self._process.poll() is not None:
                self._errors.seek(0)
                raise LabError(f"the scratch machine has ended\n{self._errors.read()}")
            if self._first_pid() is None:
                return None
            return self.output("systemctl", "is-system-running", check=False)

        # "degraded" would be one failed unit; which ones fail is for the tests to say.
        wait_until(lambda: state() in ("running", "degraded"), BOOT_LIMIT_S, "booted", pause=0.1)

    def _first_pid(self):
        """That of systemd, or None while there is none."""
        pid = self._process.pid
        for _ in range(3):
            children = children_of(pid)
            if not children:
                return None
            pid = children[0]
        try:
            name = pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="utf-8")
        except (FileNotFoundError, ProcessLookupError):
            return None
        return pid if name == "systemd\n" else None
