"""What outlives a restart of what an operator has asked for, and ids that the bus shows signed."""

from support import lines, others, request, wait_everywhere

from lab.paths import SETTINGS
from lab.waiting import now

FROZEN_FILE = f"{SETTINGS}/frozen_master"
FIRST, SECOND = 3232235777, 3232235778  # node ids that the bus shows as negative numbers


def signed(node_id):
    return node_id - (1 << 32)


def set_freeze(nodes, frozen_id, reason):
    """Freezes mastership to the master, or with 0 to none, and looks at what all make of it."""
    since = request(nodes[-1], "SetFreeze", frozen_id != 0, reason)
    wait_everywhere(nodes, "NotifyFrozenMaster", frozen_id, reason, since=since)
    assert_frozen(nodes, frozen_id, reason)


def assert_frozen(nodes, frozen_id, reason):
    """The nodes publish the freeze and keep it in their files."""
    number, reason = (signed(frozen_id), reason) if frozen_id else (0, "")
    for node in nodes:
        file = node.file(FROZEN_FILE)
        kept = file.read_text(encoding="utf-8") if file.exists() else None
        assert kept == (f"{number}\n{reason}\n" if frozen_id else None)
        assert (node.get("FrozenMaster"), node.get("FrozenMasterReason")) == (number, reason)


def test_two_nodes_with_large_ids_keep_a_freeze_through_a_restart(make_lab):
    with make_lab(nodes=2, ids={1: FIRST, 2: SECOND}) as lab:
        lab.start()
        giver = lab.node(lab.wait_master())
        [master] = others(lab, giver.number)
        since = request(giver, "GiveBack")
        wait_everywhere(lab.nodes, "NotifyNewMaster", master.id, since=since)
        offer = f"sending master take-over (local node {signed(master.id)} is slave)"
        assert lines(master, f"INFO: From {giver.id}: MASTER_GIVEBACK -- {offer}", since)

        set_freeze(lab.nodes, master.id, "disk swap")
        master.stop()
        since = now()
        master.start()
        wait_everywhere(lab.nodes, "NotifyNewMaster", master.id, since=since)
        assert lines(master, f"FROZEN MASTER {master.id} (disk swap) -- will be master", since)
        assert_frozen(lab.nodes, master.id, "disk swap")
        assert giver.call("TakeOver") is False
        assert lines(giver, f"WARN: FROZEN to {signed(master.id)} -- ignoring take-over", since)
        set_freeze(lab.nodes, 0, "done")
