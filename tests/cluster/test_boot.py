"""A ring that forms again, or that all nodes form at once: the daemons wait, and none aborts."""

import re

import pytest
from support import aborted, lines, others, time_at

from lab.waiting import now


@pytest.fixture(name="four", scope="module")
def _four(make_lab):
    # Four find one another by twos; with this token well apart.
    lab = make_lab(nodes=4, token=3000)
    yield lab
    lab.down()


def test_killed_corosync_comes_back_with_its_daemon_and_ends_no_other(lab):
    lab.start()
    lost = lab.node(lab.wait_master())
    since = time_at(*lab.nodes)
    lost.kill_corosync()
    assert lost.wait_exit(since).status == 1
    lost.wait_log("INFO: Registered on dbus", limit=30.0, since=since)
    gone = "ERR(dvcpg_callback):corosync is gone (cpg_dispatch: 2) -- ending"
    assert lines(lost, "ERR(", since)[-1] == gone
    assert len(lines(lost, "ERR(", since)) < 10  # Each turn of a loop that spins would log one.
    lab.wait_ring()
    lab.wait_master(limit=30.0)
    assert aborted(lab.nodes) == []
    assert not any(node.exits(since) for node in others(lab, lost.number))


def test_nodes_that_boot_at_once_make_one_master_and_no_daemon_aborts(four):
    for node in four.nodes:
        if node.is_on():
            node.power_off()
    since = now()
    four.mark = since
    booted = four.nodes[:3]
    for node in booted:
        node.power_on(wait=False)
    for node in booted:
        node.wait_booted(since)
    numbers = [node.number for node in booted]
    four.wait_master(agreed_on=numbers, limit=30.0)
    assert aborted(booted) == []
    # They waited for one another, but not to the end for a node that is off.
    waited = r"INFO: wait-for-ring: nodes in the ring: 3 of 4, waited (\d|1[0-4]) s"
    said = [line for node in booted for line in lines(node, "wait-for-ring") if "waited" in line]
    assert said and all(re.fullmatch(waited, line) for line in said), said
    # And what the power cut did not take: the next end is followed by a start.
    four.node(1).kill()
    four.wait_master(agreed_on=numbers)
