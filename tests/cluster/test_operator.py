"""What an operator may ask of a cluster, what is refused, and what outlives a restart."""

import pytest
from support import SETTINGS, lines, others, request, take_over, time_at, wait_everywhere

from lab.waiting import now

FROZEN_FILE = f"{SETTINGS}/frozen_master"
PREFERRED_FILE = f"{SETTINGS}/preferred_master"
FIRST, SECOND = 3232235777, 3232235778  # node ids that the bus shows as negative numbers


def signed(node_id):
    return node_id - (1 << 32) if node_id >> 31 else node_id


def refused(node, method, *arguments, warning):
    since = time_at(node)
    assert node.call(method, *arguments) is False
    assert lines(node, "", since) == [f"WARN: {warning} change request"]


def freeze_of(node):
    """The freeze as the node publishes it and keeps it: its id and reason, and its file's lines."""
    file = node.file(FROZEN_FILE)
    kept = file.read_text(encoding="utf-8").splitlines() if file.exists() else []
    return node.get("FrozenMaster"), node.get("FrozenMasterReason"), kept


def freeze(node, nodes, reason):
    """Freezes mastership to the present master by a request to `node`."""
    master = node.get("MasterNodeId") & 0xFFFFFFFF
    since = request(node, "SetFreeze", True, reason)
    wait_everywhere(nodes, "NotifyFrozenMaster", master, reason, since=since)
    for member in nodes:
        number = signed(master)
        assert freeze_of(member) == (number, reason, [str(number), reason])
        how = f" ({reason}) -- already master" if member.id == master else " -- already slave"
        assert lines(member, f"INFO: From {node.id}: FROZEN MASTER {master}{how}", since)


def test_take_over_and_give_back_among_three(cluster):
    master, target = cluster.wait_master(), others(cluster, cluster.wait_master())[0]
    for _ in range(2):  # The master may ask again; all is applied again.
        since = take_over(cluster, target.number)
        assert lines(target, f"INFO: MASTER: (nodeid = {target.id} ", since)
        for node in others(cluster, target.number):
            assert lines(node, f"INFO: SLAVE: (master nodeid = {target.id} ", since)
    assert set(cluster.masters().values()) == {target.id}

    since = request(target, "GiveBack")
    assert cluster.wait_master() != target.number
    said = f"INFO: From {target.id}: MASTER_GIVEBACK -- "
    assert lines(target, said, since) == [said + "ignoring my own message"]
    for node in others(cluster, target.number):
        offer = said + f"sending master take-over (local node {node.id} is slave)"
        assert lines(node, said, since) == [offer]

    master = cluster.node(cluster.wait_master())
    giver, third = others(cluster, master.number)
    since = request(giver, "GiveBack")
    wait_everywhere(cluster.nodes, "NotifyNewMaster", third.id, since=since)
    said = f"INFO: From {giver.id}: MASTER_GIVEBACK -- ignoring (local node {master.id} is already"
    assert lines(master, said, since) == [f"{said} existing master)"]


def test_freeze_outlives_the_master_and_ends_by_request(cluster):
    number = cluster.wait_master()
    master, slaves = cluster.node(number), others(cluster, number)
    freeze(slaves[0], cluster.nodes, "disk replacement")
    refused(slaves[1], "TakeOver", warning=f"FROZEN to {number} -- ignoring take-over")
    refused(master, "GiveBack", warning=f"FROZEN to {number} -- ignoring give-back")
    since = time_at(slaves[0])
    slaves[0].set("PreferredMaster", True)
    told = f"INFO: PREFERRED MASTER(1) -- no master election (FROZEN to {number})"
    assert lines(slaves[0], "", since) == [told]

    since = now()
    master.kill()
    wait_everywhere(slaves, "NotifyLeft", number, 2, since=since)
    master.start()
    wait_everywhere(slaves, "NotifyNewMaster", number, since=since)
    kept = f"no master election (FROZEN to {number}"
    for slave in slaves:
        assert lines(slave, "no master election", since) == [
            f"INFO: From {number}: LEFT -- {kept})",
            f"INFO: From {number}: JOINED -- {kept} -- disk replacement)",
        ]
        assert not lines(slave, "ELECTION", since)
    assert lines(master, f"FROZEN MASTER {number} (disk replacement) -- will be master", since)
    assert cluster.wait_master() == number

    since = request(slaves[1], "SetFreeze", False, "done")
    wait_everywhere(cluster.nodes, "NotifyFrozenMaster", 0, "done", since=since)
    for node in cluster.nodes:
        assert freeze_of(node) == (0, "", [])
        assert lines(node, f"INFO: From {slaves[1].id}: UNFROZEN master -- start election", since)
    # The preference that was noted during the freeze now decides.
    assert cluster.wait_master() == slaves[0].number


@pytest.mark.parametrize("held", ["none", "other", "itself"])
def test_join_with_another_freeze_ends_in_one_freeze_everywhere(cluster, held):
    number = cluster.wait_master()
    joiner, third = others(cluster, number)
    freeze(third, cluster.nodes, "kept")
    joiner.kill()
    file = joiner.file(FROZEN_FILE)
    if held == "none":
        file.unlink()
    else:
        file.write_text(f"{(third if held == 'other' else joiner).id}\nstale\n", encoding="utf-8")
    since = now()
    joiner.start()

    def told(node):
        return [s.arguments for s in node.signals_since(since) if s.name == "NotifyFrozenMaster"]

    # Each of the three announces its own; all hear all of them in one order, and keep the last.
    cluster.wait(lambda: all(len(told(node)) == 3 for node in cluster.nodes), 10.0, "all are told")
    heard = told(joiner)
    for node in cluster.nodes:
        assert told(node) == heard
        last_id, reason = heard[-1]
        file_lines = [str(last_id), reason] if last_id else []
        assert freeze_of(node) == (last_id, reason, file_lines)
    if held == "other":
        # Nobody elects: who was there stays with its master, who has come is not told of any.
        assert cluster.masters() == {number: number, third.number: number, joiner.number: 0}
    else:
        assert cluster.wait_master() == joiner.number or held == "none"


def test_preferred_master_wins_elections_also_after_a_restart(cluster):
    node = others(cluster, cluster.wait_master())[0]
    since = now()
    node.set("PreferredMaster", True)
    wait_everywhere(cluster.nodes, "NotifyNewMaster", node.id, since=since)
    won = f"FINISHED: Master should be {node.id} (that's me -- taking over) [priority 1]"
    assert lines(node, won, since)
    assert node.file(PREFERRED_FILE).read_text(encoding="utf-8") == "1\n"
    for member in cluster.nodes:
        member.kill()
    since = now()
    cluster.start()
    assert cluster.wait_master() == node.number
    assert lines(node, won, since)
    assert [member.get("PreferredMaster") for member in others(cluster, node.number)] == [False] * 2
    node.set("PreferredMaster", False)
    assert node.file(PREFERRED_FILE).read_text(encoding="utf-8") == "0\n"
    assert node.get("PreferredMaster") is False


def test_two_nodes_with_large_ids_and_what_a_lone_one_may_not(make_lab):
    with make_lab(nodes=2, ids={1: FIRST, 2: SECOND}) as lab:
        lab.start()
        master = lab.node(lab.wait_master())
        [slave] = others(lab, master.number)
        since = request(master, "GiveBack")
        wait_everywhere(lab.nodes, "NotifyNewMaster", slave.id, since=since)
        offer = f"sending master take-over (local node {signed(slave.id)} is slave)"
        assert lines(slave, f"INFO: From {master.id}: MASTER_GIVEBACK -- {offer}", since)
        master, slave = slave, master

        freeze(slave, lab.nodes, "")
        master.stop()
        since = now()
        master.start()
        wait_everywhere(lab.nodes, "NotifyNewMaster", master.id, since=since)
        assert lines(master, f"FROZEN MASTER {master.id} () -- will be master", since)
        assert freeze_of(master) == (signed(master.id), "", [str(signed(master.id)), ""])

        master.kill()
        slave.wait_signal("NotifyLeft", master.id, 1, since=since)
        refused(slave, "TakeOver", warning=f"FROZEN to {signed(master.id)} -- ignoring take-over")
        refused(slave, "SetFreeze", False, "", warning="Only 1 node -- ignoring set-freeze")
        slave.kill()
        slave.file(FROZEN_FILE).unlink()
        slave.start()
        assert lab.wait_master(agreed_on=[slave.number]) == slave.number
        refused(slave, "TakeOver", warning="Only 1 node -- ignoring take-over")
        refused(slave, "GiveBack", warning="Only 1 node -- ignoring give-back")
        refused(slave, "SetFreeze", True, "", warning="Only 1 node -- ignoring set-freeze")
