"""What "duskvalectl why" answers on each node, with the unit as it is shipped: case after case."""

import re

from support import others, said, write

from lab.paths import SETTINGS
from lab.waiting import wait_until

LOST = "went down, was cut off or lost its corosync"
LIMIT = 15.0
# Time to ask before the unit starts the daemon again, which joins and may move the role.
RETURNS_LATE = "[Service]\nRestartSec=5\n"


def why(node, *parts, never=()):
    """Waits until the answer has all of `parts`: journald is a moment behind. Then it must have
    none of `never`, and not more than two sentences."""
    def answer():
        text = said(node, "why")
        return text if all(part in text for part in parts) else None

    text = wait_until(answer, LIMIT, f"why on {node} has {parts}", pause=0.2,
                      explain=lambda: said(node, "why") + said(node, "history", "--last=40"))
    assert len(text.splitlines()) <= 2, text
    assert not [part for part in never if part in text], text
    return text


def agreed(lab, *nodes):
    """The master and the others, when all is quiet."""
    master = lab.node(lab.wait_master(agreed_on=[node.number for node in nodes or lab.nodes]))
    return master, *others(lab, master.number)


def fresh(lab, **options):
    """A cluster whose counters are low, so that a preferred node wins each election it starts."""
    lab.reset()
    lab.start(**options)
    return agreed(lab)


def stop_and_prefer(node):
    """When it starts again, it is preferred. The master of the others, which may be a new one."""
    node.stop()
    master, *_ = agreed(node.lab, *others(node.lab, node.number))
    write(node, f"{SETTINGS}/preferred_master", "1\n")
    return master


def without_a_master(text):
    """For how many seconds, as the answer says."""
    number, unit = re.search(r"this node had no master for ([\d.]+) (ms|s)", text).groups()
    return float(number) / (1000 if unit == "ms" else 1)


def test_the_masters_daemon_is_killed_and_its_unit_is_stopped(lab):
    master, *rest = fresh(lab, drop_in=RETURNS_LATE)
    master.kill()
    new, *_ = agreed(lab, *rest)
    for node in rest:
        text = why(node, f"the daemon of node {master.id} ended; node {master.id} was master")
        assert f"node {new.id}" in text and 0.4 < without_a_master(text) < 5
    agreed(lab)
    why(master, "this node's daemon was killed by signal 9 (Killed)", "it started again at")

    master, *rest = agreed(lab)
    master.stop()
    agreed(lab, *rest)
    for node in rest:
        why(node, f"the daemon of node {master.id} ended", f"in place of node {master.id}")
    why(master, "this node's daemon was stopped with its unit", "has known no master since")


def test_a_slave_that_restarts_moves_the_role_and_so_does_an_old_master(lab):
    _, joiner, _ = fresh(lab)
    master = stop_and_prefer(joiner)
    joiner.start()
    assert agreed(lab)[0] is joiner
    for node in others(lab, joiner.number):
        why(node, f"node {joiner.id} joined", f"in place of node {master.id}",
            "never without a master", never=("asked", "SPLIT"))
    why(joiner, "this node's daemon was stopped with its unit", "it started again at",
        f"made node {joiner.id} (this node), preferred, master")

    old, *_ = fresh(lab)
    new = stop_and_prefer(old)
    old.start()
    assert agreed(lab)[0] is old
    for node in others(lab, old.number):
        why(node, f"node {old.id} joined", f"in place of node {new.id}",
            "never without a master", never=("asked", "SPLIT"))
    why(old, f"node {old.id} (this node) was master", "it started again at",
        f"made node {old.id} (this node), preferred, master")


def test_a_cut_is_asked_on_both_sides_and_repaired(cluster):
    master, *rest = agreed(cluster)
    master.cut()
    cluster.wait_ring([node.number for node in rest])
    cluster.wait_ring([master.number])
    new, *_ = agreed(cluster, *rest)
    agreed(cluster, master)
    for node in rest:
        why(node, f"node {master.id} {LOST}; node {master.id} was master", f"node {new.id}")
    why(master, "or this node was cut off", f"kept node {master.id} (this node)", never=("SPLIT",))
    cluster.heal()
    cluster.wait_ring()
    agreed(cluster)
    split = re.compile("SPLIT BRAIN: .*they had been apart until.*it started again at", re.DOTALL)
    cluster.wait(lambda: any(split.search(said(node, "why")) for node in cluster.nodes
                             if node.exits()), LIMIT, "a node that ended names the split")


def test_the_masters_node_is_powered_off_and_boots(cluster):
    master, *rest = agreed(cluster)
    master.power_off()
    new, *_ = agreed(cluster, *rest)
    for node in rest:
        text = why(node, f"node {master.id} {LOST}; node {master.id} was master")
        assert f"node {new.id}" in text and 0.4 < without_a_master(text) < 8
    master.power_on()
    master.start()
    agreed(cluster)
    why(master, "this node booted", never=("had no master for",))


def test_a_take_over_a_give_back_and_a_preference(lab):
    master, new, other = fresh(lab)
    said(new, "take-over", "--wait")
    for node in (master, other):
        why(node, f"node {new.id} took over in place of node {master.id}", "never without a master")
    why(new, f"node {new.id} (this node) was asked to take over in place of node {master.id}",
        "asked this node: duskvalectl take-over")
    # More than is read at once: the answer must come from the end of the journal.
    for node in lab.nodes:
        node.run(["sh", "-c", "seq 1100 | logger -t duskvalectl"])
    said(other, "take-over", "--wait")
    for node in (master, new):
        why(node, f"node {other.id} took over in place of node {new.id}")
    said(other, "give-back", "--wait")
    for node in lab.nodes:
        why(node, f"node {other.id}", "was asked to give mastership back", "took over in place of")

    master, new, other = fresh(lab)
    said(new, "prefer", "on", "--wait")
    assert agreed(lab)[0] is new
    for node in (master, other):
        why(node, f"node {new.id}", "election", f"in place of node {master.id}",
            never=("joined", "asked", "SPLIT"))
    why(new, 'as after "prefer" on a node', f"node {new.id} (this node), preferred, master in "
        f"place of node {master.id}", "asked this node: duskvalectl prefer")


def test_a_freeze_is_lifted_by_an_operator_and_by_a_node_that_joins(lab):
    master, new, other = fresh(lab)
    said(other, "freeze", "--wait", "new disk")
    new.set("PreferredMaster", True)
    said(other, "unfreeze", "--wait")
    assert agreed(lab)[0] is new
    for node in lab.nodes:
        why(node, f"node {other.id}", f"was asked to lift the freeze to node {master.id}",
            f"node {new.id}", never=("joined without", "duskvalectl freeze", "SPLIT"))

    master, joiner, other = fresh(lab)
    said(other, "freeze", "--wait", "new disk")
    stop_and_prefer(joiner)
    joiner.file(f"{SETTINGS}/frozen_master").unlink()
    joiner.start()
    assert agreed(lab)[0] is joiner
    for node in (master, other):
        why(node, f"node {joiner.id} joined without the freeze to node {master.id}",
            f"in place of node {master.id}", never=("asked to lift",))


def test_the_frozen_master_is_lost_and_returns(cluster):
    master, *rest = agreed(cluster)
    said(master, "freeze", "--wait", "new disk")
    master.stop()
    for node in rest:
        why(node, f"the daemon of node {master.id} ended", "has known no master since",
            f"mastership is frozen to node {master.id}")
    master.start()
    for node in rest:
        why(node, f"node {master.id}, to which mastership is frozen, took over",
            "it joined again at", "had no master for")


def test_a_slave_is_paused_through_an_election(cluster):
    master, new, paused = agreed(cluster)
    paused.pause()
    master.stop()
    new.wait_log(f"MASTER: .nodeid = {new.id}")
    paused.resume()
    agreed(cluster, new, paused)
    ended = [node for node in (new, paused) if node.exits()]
    for node in ended:
        why(node, "no nodes had been apart", "it started again at", never=("SPLIT BRAIN",))
    assert ended


def test_corosync_is_killed(cluster):
    master, *rest = agreed(cluster)
    master.kill_corosync()
    master.wait_exit()
    for node in rest:
        why(node, f"node {master.id} {LOST}; node {master.id} was master")
    why(master, "this node's daemon ended because corosync did")
