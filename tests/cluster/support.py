"""What the cluster tests share: signals on several nodes at once, the idle check, noting steps."""

import contextlib
import os
import re
import signal
import time

from lab.cluster import CHECKOUT
from lab.holders import has_address
from lab.waiting import now, wait_until

NAME = "duskvale-corosync-bridge"
LIMIT_S = 20.0

# Debug lines of the coordinator: among them one for each message of a master's sync timer.
TRACE = ("-vvvvvvv", "-d", "0x20")

HOLD = "/run/hold"
AS_WATCHER = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--groups=adm")

# Of an idle daemon, which wakes some 3 times a second; one that spins exceeds both a hundredfold.
MAX_SWITCHES_PER_S = 50
MAX_CPU_SHARE = 0.1
IDLE_S = 2.0

# Notes what it was asked for, and whether another step was running then. Hangs where asked to.
STEP = """\
#!/bin/sh
name=${0##*/}
pid=$(cat /run/hanging 2>/dev/null) && kill -0 "$pid" 2>/dev/null && name="$name beside another,"
echo "$name $1" >>/run/steps
hang=/run/hang-$1-${0##*/}
[ ! -e "$hang" ] || { echo $$ >/run/hanging; exec sleep "$(cat "$hang")"; }
"""

TOOK = r", after [\d.]+ m?s$"

FAILS = "#!/bin/sh\n[ $1 = stop ] || exit 3\n"

OBJECT = ("com.norvel.DuskvaleKeeper", "/com/norvel/DuskvaleKeeper", "com.norvel.DuskvaleKeeper")

STARTED = ["10-first.run start", "20-last.run start"]
STOPPED = ["20-last.run stop", "10-first.run stop"]
HEALED = STOPPED + STARTED


def others(lab, *numbers):
    return [node for node in lab.nodes if node.number not in numbers]


def aborted(nodes, since=None):
    """The aborts of their daemons since then, or the last reset, as when two masters meet."""
    return [end for node in nodes for end in node.exits(since) if end.status == signal.SIGABRT]


def wait_everywhere(nodes, name, *arguments, since):
    """Waits for the D-Bus signal on each of the nodes."""
    for node in nodes:
        node.wait_signal(name, *arguments, since=since)


def time_at(*nodes):
    """The time now; what the daemons of these nodes have logged before has an earlier one."""
    for node in nodes:
        node.sync()
    return now()


def request(node, method, *arguments):
    """Makes a request that must be granted, and returns the time just before it."""
    since = time_at(node)
    assert node.call(method, *arguments) is True, f"{method} on {node} was refused"
    return since


def take_over(lab, number):
    """Makes the node the master, waits until all daemons have applied that; the time before it."""
    since = request(lab.node(number), "TakeOver")
    nodes = [node for node in lab.nodes if node.is_active()]
    wait_everywhere(nodes, "NotifyNewMaster", lab.node(number).id, since=since)
    return since


@contextlib.contextmanager
def steps_held(*nodes):
    """Run steps that begin on these nodes in this context do not end before it does."""
    for node in nodes:
        os.mkfifo(node.file(HOLD))
        node.write_step("hold.run", f"#!/bin/sh\n[ ! -p {HOLD} ] || cat {HOLD} || :\n")
    writers = [os.open(node.file(HOLD), os.O_RDWR) for node in nodes]
    try:
        yield
    finally:
        for node, writer in zip(nodes, writers):
            node.file(HOLD).unlink()  # Before the end, or a step might open it after that.
            os.close(writer)


def follow(node, recipe):
    """Does on the node, or on its disk when it is off, what the runbook says; the output as `said`
    gives it."""
    text = (CHECKOUT / "docs/operations.md").read_text(encoding="utf-8")
    script = re.search(f"^```sh {recipe}\n(.*?)^```", text, re.MULTILINE | re.DOTALL)[1]
    argv = ["sh", "-euc", script.replace("alpha", "node1").replace("beta", "node2")]
    if not node.is_on():
        return node.lab.host.run("chroot", f"/run/lab/{node.name}/root", *argv)
    return re.sub(TOOK, "", node.run(argv, limit=90.0).stdout, flags=re.MULTILINE)


def said(node, *arguments, status=0, **options):
    """What duskvalectl says, errors last, without how long it took. It must end with `status`."""
    result = node.duskvalectl(*arguments, check=False, **options)
    text = result.stdout + result.stderr
    assert result.returncode == status, text
    return re.sub(TOOK, "", text, flags=re.MULTILINE)


def lines(node, text, since=0.0):
    """The daemon's log lines since the last reset, or `since`, that contain `text`."""
    return [entry.text for entry in node.log if entry.time >= since and text in entry.text]


def assert_idle(nodes):
    """The daemons of `nodes` sleep, for all but a small part of two seconds."""
    before = [_usage(node) for node in nodes]
    time.sleep(IDLE_S)
    after = [_usage(node) for node in nodes]
    for node, (switches, cpu), (switches_before, cpu_before) in zip(nodes, after, before):
        assert switches - switches_before < MAX_SWITCHES_PER_S * IDLE_S, f"{node} keeps waking"
        assert cpu - cpu_before < MAX_CPU_SHARE * IDLE_S, f"{node} is busy"


def _usage(node):
    """Context switches and seconds of processor time of the node's daemon so far."""
    process = node.file(f"/proc/{node.pid()}")
    status = (process / "status").read_text(encoding="utf-8").splitlines()
    switches = sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)
    busy_ns, *_ = (process / "schedstat").read_text(encoding="ascii").split()
    return switches, int(busy_ns) / 1e9


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


def wait_steps(node, expected):
    """Waits for exactly these steps, each "NAME ARGUMENT"."""
    def done():
        found = steps(node)
        assert found == expected[: len(found)]
        return found == expected

    wait_until(done, LIMIT_S, f"steps: {expected}", explain=lambda: str(steps(node)))


def wait_settled(lab):
    """The master, once it is preferred and nobody else is."""
    def settled():
        master = lab.node(lab.wait_master())
        preferred = [node for node in lab.nodes if node.get("PreferredMaster")]
        return master if preferred == [master] and has_address(master) else None

    return lab.wait(settled, LIMIT_S, "the master is preferred")


def wait_verdict(node, level, cause=""):
    """Waits until the node's keeper says so, and that among the causes."""
    ask = ["busctl", "get-property", *OBJECT, "Verdict", "Causes"]

    def said_so():
        text = node.run(ask, check=False).stdout
        return f'"{level}"' in text and cause in text

    node.lab.wait(said_so, LIMIT_S, f"{node} says {level}: {cause}", pause=0.1)
