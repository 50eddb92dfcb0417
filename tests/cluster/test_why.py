"""What "duskvalectl why" answers on each node, with the unit as it is shipped: a case after another."""

import re

from support import others, said

from lab.waiting import wait_until

MOVED = "went down, was cut off or lost its corosync"
LIMIT = 15.0


def why(node, *parts):
    """Waits until the answer has all of `parts`, and returns it: journald is a moment behind."""
    def answer():
        text = said(node, "why")
        return text if all(part in text for part in parts) else None

    text = wait_until(answer, LIMIT, f"why on {node} has {parts}", pause=0.2,
                      explain=lambda: said(node, "why"))
    assert len(text.splitlines()) <= 2, text
    return text


def agreed(lab, *numbers):
    """The master and the others, when all is quiet."""
    master = lab.node(lab.wait_master(agreed_on=[*numbers] if numbers else None))
    rest = others(lab, master.number)
    return master, *rest


def fresh(lab):
    """A cluster whose counters are low, so that a preferred node that joins wins."""
    lab.reset()
    lab.start()
    return agreed(lab)


def without_a_master(text):
    """For how many seconds, as the answer says."""
    number, unit = re.search(r"this node had no master for ([\d.]+) (ms|s)", text).groups()
    return float(number) / (1000 if unit == "ms" else 1)


def test_the_masters_daemon_is_killed_and_its_unit_is_stopped(lab):
    lab.start()
    master, *rest = agreed(lab)
    master.kill()
    new, *_ = agreed(lab)
    for node in rest:
        text = why(node, f"the daemon of node {master.id} ended; node {master.id} was master",
                   f"node {new.id}")
        assert 0.4 < without_a_master(text) < 5
    why(master, "this node's daemon was killed by signal 9 (Killed)", "it started again at")

    master, *rest = agreed(lab)
    master.stop()
    new, *_ = agreed(lab, *(node.number for node in rest))
    for node in rest:
        why(node, f"the daemon of node {master.id} ended", f"in place of node {master.id}")
    why(master, "this node's daemon was stopped with its unit", "has known no master since")


def test_a_node_that_joins_moves_the_role(lab):
    _, joiner, _ = fresh(lab)
    joiner.set("PreferredMaster", True)
    joiner.stop()
    agreed(lab, *(n.number for n in lab.nodes if n is not joiner))
    joiner.start()
    assert agreed(lab)[0] is joiner
    for node in others(lab, joiner.number):
        text = why(node, f"node {joiner.id} joined", f"made node {joiner.id}, preferred, master",
                   "this node was never without a master")
        assert "asked" not in text
    why(joiner, "this node's daemon was stopped with its unit", "it started again at")


def test_a_cut_is_asked_on_both_sides_and_healed(lab):
    lab.start()
    master, *rest = agreed(lab)
    master.cut()
    new, *_ = agreed(lab, *(node.number for node in rest))
    for node in rest:
        why(node, f"node {master.id} {MOVED}; node {master.id} was master", f"node {new.id}")
    text = why(master, "and so did node", "or this node was cut off", "as master")
    assert f"kept node {master.id} (this node)" in text
    lab.heal()
    lab.wait_ring()
    agreed(lab)
    for node in lab.nodes:
        why(node, "SPLIT BRAIN: node ", "they had been apart until", "it started again at")


def test_the_masters_node_is_powered_off_and_boots(lab):
    lab.start()
    master, *rest = agreed(lab)
    master.power_off()
    new, *_ = agreed(lab, *(node.number for node in rest))
    for node in rest:
        text = why(node, f"node {master.id} {MOVED}", f"node {new.id}")
        assert 0.4 < without_a_master(text) < 8
    master.power_on()
    master.start()
    agreed(lab)
    assert "had no master for" not in why(master, "this node booted", f"node {new.id}")


def test_a_take_over_a_give_back_and_a_preference(lab):
    lab.start()
    master, new, other = agreed(lab)
    said(new, "take-over", "--wait")
    for node in (master, other):
        why(node, f"node {new.id} was asked to take over in place of node {master.id}",
            "never without a master")
    why(new, "asked this node: duskvalectl take-over")
    said(new, "give-back", "--wait")
    for node in lab.nodes:
        why(node, f"node {new.id}", "was asked to give mastership back", "took over in place of")

    master, new, other = fresh(lab)
    new.set("PreferredMaster", True)
    assert agreed(lab)[0] is new
    for node in lab.nodes:
        why(node, "no join, leave or lifted freeze explains", f"node {new.id}")
    new.ctl("prefer", "on", "--wait")


def test_a_freeze_is_lifted_by_an_operator_and_by_a_node_that_joins(lab):
    master, new, other = fresh(lab)
    said(other, "freeze", "--wait", "new disk")
    new.set("PreferredMaster", True)
    said(other, "unfreeze", "--wait")
    said(new, "prefer", "on", "--wait")
    if agreed(lab)[0] is not master:
        for node in lab.nodes:
            assert "SPLIT" not in why(node, f"node {new.id}")

    master, joiner, other = fresh(lab)
    said(other, "freeze", "--wait", "new disk")
    joiner.set("PreferredMaster", True)
    joiner.stop()
    joiner.run(["rm", "/etc/duskvale/frozen_master"])
    joiner.start()
    if agreed(lab)[0] is joiner:
        for node in (master, other):
            why(node, f"node {joiner.id} joined without the freeze to node {master.id}")


def test_the_frozen_master_is_lost_and_returns(lab):
    lab.start()
    master, *rest = agreed(lab)
    said(master, "freeze", "--wait", "new disk")
    master.stop()
    for node in rest:
        why(node, f"the daemon of node {master.id} ended", "has known no master since",
            f"mastership is frozen to node {master.id}")
    master.start()
    for node in rest:
        why(node, f"node {master.id}, to which mastership is frozen, took over",
            "it joined again at", "had no master for")


def test_a_slave_is_paused_through_an_election_and_corosync_is_killed(lab):
    lab.start()
    master, new, paused = agreed(lab)
    paused.pause()
    master.stop()
    new.wait_log(f"MASTER: .nodeid = {new.id}")
    paused.resume()
    agreed(lab, new.number, paused.number)
    for node in (new, paused):
        assert "SPLIT BRAIN" not in why(node, "no nodes had been apart", "it started again at")

    lab.reset()
    lab.start()
    master, *rest = agreed(lab)
    master.kill_corosync()
    master.wait_exit()
    for node in rest:
        why(node, f"node {master.id} {MOVED}; node {master.id} was master")
    why(master, "this node's daemon ended because corosync did")
