"""Who is master, and what the loss and the return of a node change about that."""

import signal

import pytest
from support import TRACE, assert_idle, lines, others, wait_everywhere

from lab.node import NO_RESTART, Node
from lab.paths import SETTINGS
from lab.waiting import now

PREFERRED_FILE = f"{SETTINGS}/preferred_master"


def test_first_election_names_one_master_on_every_node(lab):
    lab.start()
    master = lab.wait_master()
    for node in lab.nodes:
        assert node.bus.get_all() == {
            "Version": "1.0", "LocalNodeId": node.id, "NodeCount": 3, "MasterNodeId": master,
            "IsMaster": node.number == master, "PreferredMaster": False, "FrozenMaster": 0,
            "FrozenMasterReason": "", "LumacratesCount": 0, "InTransition": False,
        }
        role = r"MASTER: \(" if node.number == master else r"SLAVE: \(master "
        counters = r"sync_counter = \d+\) -- local sync_counter = \d+$"
        node.wait_log(f"^INFO: {role}nodeid = {master} priority = 0 {counters}")
        assert not list(node.file(SETTINGS).iterdir())


@pytest.mark.parametrize("role, lose", [
    ("master", Node.kill), ("master", Node.stop), ("master", Node.power_off), ("slave", Node.kill),
])
def test_survivors_agree_and_the_lost_node_comes_back_as_a_slave(lab, role, lose):
    lab.start(*TRACE, drop_in=NO_RESTART)
    master = lab.wait_master()
    lost = lab.node(master if role == "master" else master % 3 + 1)
    survivors = others(lab, lost.number)
    numbers = [node.number for node in survivors]
    for node in others(lab, master):  # From here on all carry the counter of a master.
        node.wait_log(rf"message_handler_sync: from Master \(nodeid {master} sync_counter [1-9]")
    lost.file(PREFERRED_FILE).write_text("0\n", encoding="utf-8")
    since = now()
    lose(lost)
    wait_everywhere(survivors, "NotifyLeft", lost.id, 2, since=since)
    successor = lab.wait_master(agreed_on=numbers)
    if role == "master":
        applied = rf"^INFO: MASTER: \(nodeid = {successor} priority = 0 sync_counter = [1-9]"
        lab.node(successor).wait_log(applied)
    # The one that comes back starts with 0, and so loses the election that its join brings.
    since = now()
    if not lost.is_on():
        lost.power_on()
    lost.start()
    wait_everywhere(lab.nodes, "NotifyJoined", lost.id, 3, since=since)
    assert lab.wait_master() in numbers
    assert lost.file(PREFERRED_FILE).exists()  # The disk keeps it, also without power.


def test_partitions_that_elected_meet_and_agree_again(lab):
    lab.start()
    lab.wait_master()
    lab.cut(3)
    lab.wait_ring([1, 2])
    lab.wait_ring([3])
    lab.wait_master(agreed_on=[1, 2])
    lab.wait_master(agreed_on=[3])
    assert_idle(lab.nodes)
    left, right = lab.masters()[1], lab.masters()[3]
    lab.heal()
    lab.wait_ring()
    lab.wait_master(limit=30.0)
    # Those on one side, at least: corosync refuses messages while the ring changes.
    ended = [node for node in lab.nodes if node.exits()]
    assert ended
    for node in ended:
        assert node.exits()[0][1:] == ("killed", signal.SIGABRT)
        own, other = (right, left) if node.number == 3 else (left, right)
        error = f"SPLIT BRAIN RECONNECTED (current {own}, got {other}) -- Aborting"
        senders = [1, 2] if node.number == 3 else [3]
        expected = [f"ERR(message_handler_master_propose):From {n}: {error}" for n in senders]
        assert lines(node, "SPLIT BRAIN")[0] in expected
