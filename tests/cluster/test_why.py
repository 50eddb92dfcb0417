"""What "duskvalectl why" answers from the daemon's own log, after each kind of failover."""

import tempfile

import pytest
from support import NO_RESTART, TRACE, others, said

from lab.node import Node
from lab.paths import COROSYNC

NO_COROSYNC = 8


def why(node, plain=False):
    """The answer from the log as the lab keeps it, or `plain`: no debug lines and no times."""
    form = "{0.text}\n" if plain else "{0.time:.6f} {0.text}\n"
    with tempfile.TemporaryFile("w+", encoding="utf-8") as log:
        log.writelines(form.format(entry) for entry in node.log
                       if not (plain and entry.text.startswith("DBG(")))
        log.seek(0)
        return said(node, "why", "--log=-", stdin=log)


def lose_corosync(node):
    node.kill_corosync()
    node.wait_exit()
    assert "the daemon is not running, and neither is corosync" in said(node, status=NO_COROSYNC)


def bring_back(lab, node):
    if node.is_active():  # It was cut off: it and the others end themselves when they meet.
        lab.wait_master(agreed_on=[node.number])
        lab.heal()
        lab.wait_ring()
        node.wait_exit()
    else:
        node.systemctl("start", COROSYNC)
    lab.wait_ring()
    lab.start()
    lab.wait_master()


@pytest.mark.parametrize("move, reason, ending", [
    (Node.kill, "{old} left the group", "this node's daemon started"),
    (Node.stop, "{old} left the group", "this node's daemon was stopped"),
    (lose_corosync, "{old} left the group", "corosync is gone, and the daemon ended with it"),
    (Node.cut, "{old} left the group", "SPLIT BRAIN: the master was node "),
    (lambda old: said(others(old.lab, old.number)[0], "take-over", "--wait"),
     "{new} was asked to take over: there was no election", None),
    (lambda old: said(old, "give-back", "--wait"), "{old} was asked to give mastership back", None),
], ids=["kill", "stop", "corosync", "cut", "take-over", "give-back"])
def test_why_mastership_moved(lab, move, reason, ending):
    for node in lab.nodes:
        node.write_step("10-web.run", "#!/bin/sh\n")
    lab.start(*TRACE, drop_in=NO_RESTART)
    old = lab.node(lab.wait_master())
    rest = others(lab, old.number)
    move(old)
    members = rest if ending else lab.nodes
    new = lab.node(lab.wait_master(agreed_on=[node.number for node in members]))
    for node in rest:
        if node is new:
            head, action = f"node {new.id}, this node, became master after node {old.id}", "start"
        else:
            head = f"node {new.id} became master after node {old.id}; this node is slave"
            action = "stop"
        first, second, *details = why(node).splitlines()
        assert first.endswith(f"  {head}")
        assert second == "    why: " + reason.format(old=f"node {old.id}", new=f"node {new.id}")
        assert f"  10-web.run {action}, " in details[-2] and details[-1].endswith("run steps done")
        assert why(node, plain=True).startswith(f"{head}\n    why: ")
    if ending:
        bring_back(lab, old)
        text = why(old)
        assert ending in text and "why: this node's daemon had started and joined the group" in text


def test_why_a_join_moved_mastership(lab):
    lab.start(*TRACE)
    joiner = others(lab, lab.wait_master())[0]
    said(joiner, "prefer", "on", "--wait")
    joiner.stop()
    rest = others(lab, joiner.number)
    before = lab.wait_master(agreed_on=[node.number for node in rest])
    joiner.start()
    assert lab.wait_master() == joiner.number
    for node in rest:
        first, second, *_ = why(node).splitlines()
        moved = f"  node {joiner.id} became master after node {before}; this node is slave"
        assert first.endswith(moved) and second == f"    why: node {joiner.id} joined the group"
