"""The installed daemon under systemd, and steps that tell what it did."""

import json

from lab.waiting import wait_until

NAME = "duskvale-corosync-bridge"
UNIT = f"{NAME}.service"
BUS_NAME = "com.norvel.DuskvaleCorosync"
RUN_DIR = "/usr/share/duskvale/run.d"
LIMIT_S = 20.0

# Notes what it was asked for, and whether another step was running then. Hangs when it is told to.
STEP = """\
#!/bin/sh
name=${0##*/}
pid=$(cat /run/hanging 2>/dev/null) && kill -0 "$pid" 2>/dev/null && name="$name beside another,"
echo "$name $1" >>/run/steps
hang=/run/hang-$1-${0##*/}
[ ! -e "$hang" ] || { echo $$ >/run/hanging; exec sleep "$(cat "$hang")"; }
"""

STARTED = ["10-first.run start", "20-last.run start"]
STOPPED = ["20-last.run stop", "10-first.run stop"]


class Daemon:
    """The unit on the machine."""

    def __init__(self, machine):
        self._machine = machine

    def property(self, name, unit=UNIT):
        return self._machine.output("systemctl", "show", "--value", "-p", name, unit)

    def pid(self):
        return int(self.property("MainPID"))

    def is_active(self):
        return self.property("ActiveState") == "active"

    def systemctl(self, *arguments, **options):
        return self._machine.run("systemctl", *arguments, **options)

    def steps(self):
        """What the steps were asked for so far."""
        path = self._machine.path("/run/steps")
        return path.read_text(encoding="utf-8").splitlines() if path.exists() else []

    def forget_steps(self):
        self._machine.shell("rm -f /run/steps /run/hang*")

    def wait_steps(self, expected):
        """Waits for exactly these steps, each "NAME ARGUMENT"."""
        def done():
            steps = self.steps()
            assert steps == expected[: len(steps)]
            return steps == expected

        wait_until(done, LIMIT_S, f"steps: {expected}", explain=lambda: str(self.steps()))

    def wait_active(self):
        wait_until(self.is_active, LIMIT_S, "the daemon runs")

    def hang(self, step, argument, seconds):
        self._machine.write(f"/run/hang-{argument}-{step}", f"{seconds}\n")

    def drop_in(self, text):
        """Adds lines to the unit; without text takes them away again."""
        directory = f"/run/systemd/system/{UNIT}.d"
        if text:
            self._machine.write(f"{directory}/test.conf", text)
        else:
            self._machine.run("rm", "-rf", directory)
        self.systemctl("daemon-reload")

    def journal(self, *arguments):
        """The entries of the unit, as dictionaries."""
        self._machine.run("journalctl", "--sync")
        text = self._machine.output("journalctl", "-u", UNIT, "-o", "json", *arguments)
        return [json.loads(line) for line in text.splitlines() if line.startswith("{")]
