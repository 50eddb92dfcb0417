"""The cluster as an operator works it: with duskvalectl alone, on three real nodes."""

import re
import subprocess

import pytest
from support import AS_NOBODY, others, said, steps_held, wait_everywhere

from lab.waiting import now

REFUSED, NOT_RUNNING, TIMED_OUT, NOT_PERMITTED = 3, 4, 5, 6


def started(node, *argv):
    """A command that goes on beside the test, for `ended`."""
    return node.popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def ended(process):
    output, _ = process.communicate(timeout=60)
    return process.returncode, output


def screen(node, master, *, frozen="no", transition="no"):
    here, role = (", this node", "master") if node is master else ("", "slave")
    return (f"master      node {master.id}{here}\nthis node   node {node.id}, {role}\n"
            f"members     3\nfrozen      {frozen}\ntransition  {transition}\ndevices     0\n"
            "nodes       not known: no keeper runs on this node\n")


def test_status_before_during_and_after_a_change_of_master(cluster):
    old = cluster.node(cluster.wait_master())
    new, third = others(cluster, old.number)
    assert [said(node) for node in cluster.nodes] == [screen(node, old) for node in cluster.nodes]
    since = now()
    with steps_held(new):
        taking = started(new, "duskvalectl", "take-over", "--wait=60")
        wait_everywhere([new], "NotifyRunstepBegin", since=since)
        not_done = "yes: the run steps of this node are not done"
        assert said(new) == screen(new, new, transition=not_done)
        wait_everywhere([old, third], "NotifyRunstepsDone", since=since)
        assert [said(node) for node in (old, third)] == [screen(old, new), screen(third, new)]
        assert taking.poll() is None
    status, text = ended(taking)
    assert status == 0 and f"node {new.id}, this node, is master, 1 run step done, after" in text
    assert [said(node) for node in cluster.nodes] == [screen(node, new) for node in cluster.nodes]


@pytest.mark.packaged
def test_requests_take_effect_or_say_why_not(cluster):
    master = cluster.node(cluster.wait_master())
    slave, third = others(cluster, master.number)
    where, me = f"node {master.id}", f"node {third.id}, this node,"
    held = f"{where} is master, frozen to {where}\n"
    asked = f"asked to freeze mastership to {where}: disk repair\n"
    assert said(slave, "freeze", "disk repair", "--wait") == asked + held
    wait_everywhere(cluster.nodes, "NotifyFrozenMaster", master.id, since=cluster.mark)
    assert said(third) == screen(third, master, frozen=f"to {where}: disk repair")
    assert said(master) == screen(master, master, frozen=f"to {where}, this node: disk repair")
    refusal = (f"duskvalectl: refused: mastership is frozen to {where}: disk repair\n"
               "Next: duskvalectl unfreeze\n")
    assert said(third, "take-over", "--wait", status=REFUSED) == refusal
    assert said(master, "give-back", "--wait", status=REFUSED) == refusal
    assert said(third, "prefer", "on", "--wait") == (
        f"{me} is now preferred as master; no election: mastership is frozen to {where}\n{held}")
    assert said(slave, "unfreeze", "--wait") == (
        f"asked to lift the freeze to {where}; an election follows\nnode {third.id} is master\n")
    assert said(third, "wait", "master", "--timeout=20") == ""  # It was preferred.
    said(third, "prefer", "off", "--wait")

    assert said(slave, "take-over", "--wait").endswith(f"\nnode {slave.id}, this node, is master\n")
    assert re.search(r"\nnode \d is master\n$", said(slave, "give-back", "--wait"))
    assert cluster.wait_master() != slave.number

    for node in (master, third):
        node.stop()
    assert "the daemon is not running" in said(third, status=NOT_RUNNING)
    assert cluster.wait_master(agreed_on=[slave.number]) == slave.number
    assert "only one node is in the group" in said(slave, "give-back", status=REFUSED)


def test_wait_in_scripts(lab):
    booting = [started(node, "duskvalectl", "wait", "stable", "--timeout=60") for node in lab.nodes]
    lab.start()
    note = "duskvalectl: no keeper runs on this node: the run steps of other nodes are not known\n"
    assert [ended(process) for process in booting] == [(0, note)] * 3
    slave = others(lab, lab.wait_master())[0]
    said(slave, "wait", "slave", "--timeout=20")
    said(slave, "wait", "master", "--timeout=0.2", status=TIMED_OUT)


def test_everybody_may_look_and_only_root_may_ask(cluster):
    master = cluster.node(cluster.wait_master())
    node = others(cluster, master.number)[0]
    user = [*AS_NOBODY, "duskvalectl"]
    assert node.run([*user, "status"]).stdout == screen(node, master)
    for request in (["take-over", "--wait"], ["freeze", "me"], ["prefer", "on"], ["send", "hi"]):
        result = node.run([*user, *request], check=False)
        assert (result.returncode, result.stdout) == (NOT_PERMITTED, "")
        assert result.stderr == ("duskvalectl: the policy of the system bus does not let you ask "
                                 "this\nNext: the same as root, with sudo\n")
    assert said(node) == screen(node, master)


def test_monitor_goes_on_through_a_restart_of_the_daemon(cluster, tmp_path):
    master = cluster.node(cluster.wait_master())
    node, other = others(cluster, master.number)
    shown = tmp_path / "shown"
    with shown.open("w", encoding="utf-8") as output:
        script = 'echo $$ >/run/monitor; exec "$0" monitor'
        monitor = node.popen(["/bin/sh", "-c", script, "duskvalectl"], stdout=output)
    path = other.add_device("crate7", "rack 2", "LC-7")
    for act, line in (
        (None, f"this is node {node.id}, node {master.id} is master, 3 members"),
        (lambda: said(other, "send", "going down"), "message: going down"),
        (lambda: said(other, "keep-alive"), f"keep-alive from node {other.id}"),
        (lambda: said(other, "hotplug", "add", path),
         f"node {other.id}: device added LC-7 at rack 2 ({path}), 1 device now"),
        (node.kill, "the daemon is not running, waiting for it"),
        (None, "the daemon is running"),
        # Not before the election of its join is over, which could undo it.
        (lambda: cluster.wait_master() and said(node, "take-over", "--wait"),
         f"node {node.id} (this node) is master"),
    ):
        if act:
            act()
        pattern = re.compile(rf" \d\d:\d\d:\d\d\.\d{{3}}  {re.escape(line)}$", re.MULTILINE)
        cluster.wait(lambda: pattern.search(shown.read_text(encoding="utf-8")), 10.0, line)
    node.run(["/bin/sh", "-c", "kill -INT $(cat /run/monitor)"])
    assert monitor.wait(10) == 0
