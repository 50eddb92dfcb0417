"""What the cluster tests share: tracing, signals on several nodes at once, the idle check."""

import contextlib
import os
import re

from lab.waiting import now

# Debug lines of the coordinator: among them one for each tick of a master's sync timer.
TRACE = ("-vvvvvvv", "-d", "0x20")
TICK = r"sync_timer_callback: local\.sync_counter = [1-9]"

HOLD = "/run/hold"
AS_NOBODY = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")

# Of an idle daemon, which wakes some 3 times a second; one that spins exceeds both a hundredfold.
MAX_SWITCHES_PER_S = 50
MAX_CPU_SHARE = 0.1


def others(lab, *numbers):
    return [node for node in lab.nodes if node.number not in numbers]


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


def said(node, *arguments, status=0, **options):
    """What duskvalectl says, errors last, without how long it took. It must end with `status`."""
    result = node.duskvalectl(*arguments, check=False, **options)
    text = result.stdout + result.stderr
    assert result.returncode == status, text
    return re.sub(r", after [\d.]+ m?s$", "", text, flags=re.MULTILINE)


def lines(node, text, since=0.0):
    """The daemon's log lines since the last reset, or `since`, that contain `text`."""
    return [entry.text for entry in node.log if entry.time >= since and text in entry.text]


def assert_idle(nodes, ticker):
    """The daemons of `nodes` sleep: measured while `ticker`, a master with TRACE, ticks twice."""
    start = now()
    before = [_usage(node) for node in nodes]
    for _ in range(2):
        since = now()
        ticker.wait_log(TICK, since=since)
    after = [_usage(node) for node in nodes]
    elapsed = now() - start
    for node, (switches, cpu), (switches_before, cpu_before) in zip(nodes, after, before):
        assert switches - switches_before < MAX_SWITCHES_PER_S * elapsed, f"{node} keeps waking"
        assert cpu - cpu_before < MAX_CPU_SHARE * elapsed, f"{node} is busy"


def _usage(node):
    """Context switches and seconds of processor time of the node's daemon so far."""
    process = node.file(f"/proc/{node.pid()}")
    status = (process / "status").read_text(encoding="utf-8").splitlines()
    switches = sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)
    times = (process / "stat").read_text(encoding="utf-8").rpartition(")")[2].split()[11:13]
    return switches, sum(map(int, times)) / os.sysconf("SC_CLK_TCK")
