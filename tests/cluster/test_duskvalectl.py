"""The cluster as an operator works it: with duskvalectl alone, on three real nodes."""

import re
import subprocess

from support import AS_WATCHER, follow, others, said, wait_everywhere

REFUSED, NOT_RUNNING, TIMED_OUT, NOT_PERMITTED = 3, 4, 5, 6


def started(node, *argv):
    """A command that goes on beside the test, for `ended`."""
    return node.popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def ended(process):
    output, _ = process.communicate(timeout=60)
    return process.returncode, output


def screen(node, master, *, frozen="no"):
    here, role = (", this node", "master") if node is master else ("", "slave")
    return (f"master      node {master.id}{here}\nthis node   node {node.id}, {role}\n"
            f"members     3\nfrozen      {frozen}\ntransition  no\ndevices     0\n"
            "a loss      a lost node is noticed after 3.6 s and replaced 1.0 s later\n"
            "nodes       not known: no keeper runs on this node\n")


def test_requests_take_effect_or_say_why_not(cluster):
    master = cluster.node(cluster.wait_master())
    slave, third = others(cluster, master.number)
    where, me = f"node {master.id}", f"node {third.id}, this node,"
    held = f"{where} is master, frozen to {where}\n"
    asked = f"asked to freeze mastership to {where}: disk repair\n"
    assert follow(slave, "freeze") == asked + held
    wait_everywhere(cluster.nodes, "NotifyFrozenMaster", master.id, since=cluster.mark)
    assert said(third) == screen(third, master, frozen=f"to {where}: disk repair")
    assert said(master) == screen(master, master, frozen=f"to {where}, this node: disk repair")
    refusal = (f"duskvalectl: refused: mastership is frozen to {where}: disk repair\n"
               "Next: duskvalectl unfreeze\n")
    assert said(third, "take-over", "--wait", status=REFUSED) == refusal
    assert said(master, "give-back", "--wait", status=REFUSED) == refusal
    user = third.run([*AS_WATCHER, "duskvalectl", "take-over"], check=False)
    assert (user.returncode, user.stdout, user.stderr) == (
        NOT_PERMITTED, "", "duskvalectl: the policy of the system bus does not allow this\n"
        "Next: use sudo; members of the group adm can query without it\n")
    assert follow(third, "prefer") == (
        f"{me} is now preferred as master; no election: mastership is frozen to {where}\n{held}")
    assert follow(slave, "unfreeze") == (
        f"asked to lift the freeze to {where}; an election follows\nnode {third.id} is master\n")
    assert said(third, "wait", "master", "--timeout=20") == ""  # It was preferred.
    said(third, "prefer", "off", "--wait")
    assert f"node {third.id}" in follow(slave, "look")

    assert follow(slave, "take-over").endswith(f"\nnode {slave.id}, this node, is master\n")
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
