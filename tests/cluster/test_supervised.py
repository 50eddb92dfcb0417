"""What the shipped unit makes of a cluster, its rules played by the lab's service managers."""

import re

import pytest
from support import lines, others, time_at

from lab import unit
from lab.daemon import FAILED, STARTING
from lab.node import DAEMON
from lab.waiting import now


@pytest.fixture(name="supervised")
def _supervised(lab):
    for node in lab.nodes:
        node.supervise(unit.rules_on(node))
    return lab


@pytest.fixture(name="four", scope="module")
def _four(make_lab):
    lab = make_lab(nodes=4, token=3000)  # Four find one another by twos; with this token well apart.
    for node in lab.nodes:
        node.supervise(unit.rules_on(node))
    yield lab
    lab.down()


def aborted(nodes):
    """Those on which a daemon has aborted since the last reset, as when two masters meet."""
    return [node for node in nodes if lines(node, "lab: ended, status -6")]


@pytest.mark.parametrize("role", ["master", "slave"])
def test_killed_corosync_comes_back_with_its_daemon_and_ends_no_other(supervised, role):
    lab = supervised
    lab.start()
    master = lab.node(lab.wait_master())
    lost = master
    if role == "slave":
        master.set("PreferredMaster", True)  # Or the join might move mastership, as any join.
        assert lab.wait_master() == master.number
        lost = others(lab, master.number)[0]
    since = time_at(*lab.nodes)
    lost.kill_corosync()
    lost.wait_log("INFO: Registered on dbus", limit=30.0, since=since)
    lab.wait_ring()
    lab.wait_master(limit=30.0)
    assert aborted(lab.nodes) == []
    assert not any(lines(node, "lab: ended", since) for node in others(lab, lost.number))
    took_over = [node for node in lab.nodes if lines(node, "INFO: MASTER:", since)]
    assert bool(took_over) == (role == "master")


@pytest.mark.parametrize("count", [4, 3])
def test_nodes_that_boot_at_once_make_one_master_and_no_daemon_aborts(four, count):
    for node in four.nodes:
        if node.is_on():
            node.power_off()
    since = now()
    four.mark = since
    booted = four.nodes[:count]
    for node in booted:
        node.power_on(wait=False)
    for node in booted:
        node.wait_booted(since)
        node.start(wait=False)
    numbers = [node.number for node in booted]
    four.wait_master(agreed_on=numbers, limit=30.0)
    assert aborted(booted) == []
    # They waited for one another, but not to the end for a node that is off.
    waited = rf"INFO: wait-for-ring: nodes in the ring: {count} of 4, waited (\d|1[0-3]) s"
    said = [line for node in booted for line in lines(node, "wait-for-ring") if "waited" in line]
    assert said and all(re.fullmatch(waited, line) for line in said), said
    # And what the power cut did not take: the next end is followed by a start.
    four.node(1).kill()
    four.wait_master(agreed_on=numbers)


def test_daemon_that_cannot_start_is_given_up(supervised):
    node = supervised.node(1)
    since = now()
    node.start("--no-such-option", wait=False)
    supervised.wait(lambda: node.status()[DAEMON]["manager"] == FAILED, 30.0, "given up")
    assert len(lines(node, "lab: started", since)) == 10
    assert lines(node, "lab: not started: too many starts", since)


def test_start_that_is_stopped_or_takes_too_long_runs_the_steps_with_stop(supervised):
    node = supervised.node(1)
    node.write_step("10-call.run", "#!/bin/sh\necho $1 >>/run/called\n")
    called = node.file("/run/called")
    node.cut()
    node.kill_corosync()  # Beside a new one that is alone the start waits for the ring.
    node.start(wait=False)
    supervised.wait(lambda: node.status()[DAEMON]["manager"] == STARTING, 10.0, "waits")
    assert node.stop() is None
    assert called.read_text(encoding="utf-8") == "stop\n"
    hanging = {"before_start": [["sleep", "600"]], "start_timeout": 0.5}
    node.supervise({**unit.rules_on(node), **hanging})
    node.start(wait=False)
    supervised.wait(  # The second time too, so it was started again.
        lambda: len(lines(node, "stop-steps: the daemon did not start (timeout)")) >= 2, 20.0, "timed out"
    )
    assert lines(node, "lab: started") == []
