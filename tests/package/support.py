"""Steps that note what they are asked for, and the daemon's unit on the node."""

from lab.waiting import wait_until

NAME = "duskvale-corosync-bridge"
BUS_NAME = "com.norvel.DuskvaleCorosync"
PACKAGE = "/srv/shared/package.deb"  # on the node
LIMIT_S = 20.0

# Notes what it was asked for, and whether another step was running then. Hangs where asked to.
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
HEALED = STOPPED + STARTED


def write(node, path, text, mode=0o644):
    node.file(path).write_text(text, encoding="utf-8")
    node.file(path).chmod(mode)


def steps(node):
    """What the steps were asked for so far."""
    path = node.file("/run/steps")
    return path.read_text(encoding="utf-8").splitlines() if path.exists() else []


def forget_steps(node):
    run = node.file("/run")
    for file in *run.glob("steps"), *run.glob("hang*"):
        file.unlink()


def hang(node, step, argument, seconds):
    """What the step does when it is asked for that the next time."""
    write(node, f"/run/hang-{argument}-{step}", f"{seconds}\n")


def wait_steps(node, expected):
    """Waits for exactly these steps, each "NAME ARGUMENT"."""
    def done():
        found = steps(node)
        assert found == expected[: len(found)]
        return found == expected

    wait_until(done, LIMIT_S, f"steps: {expected}", explain=lambda: str(steps(node)))


def wait_shown(node, name, value, unit=NAME):
    """Waits for a property of a unit."""
    what = f"{unit} has {name}={value}"
    wait_until(lambda: node.show(name, unit) == value, LIMIT_S, what, pause=0.05)


def drop_in(node, text):
    """Adds lines to the daemon's unit, until the next reset."""
    node.write_drop_in(text)
    node.systemctl("daemon-reload")


def errors(node):
    """The lines of the unit's programs with priority err and above, since the last reset."""
    return [entry.text for entry in node.log if entry.fields["PRIORITY"] <= 3]
