"""What the runbook says for a frozen master that is lost; other recipes are followed where their
subject is tested."""

from support import LIMIT_S, aborted, follow, others, said, wait_settled, wait_verdict

from lab.holders import has_address
from lab.waiting import now

FAILED, REFUSED = 1, 3


def test_lost_nodes_are_given_up_and_come_back(kept):
    master = wait_settled(kept)
    follow(others(kept, master.number)[0], "freeze")
    master.power_off()
    rest = others(kept, master.number)
    wait_verdict(rest[0], "critical", "which is lost")
    follow(rest[0], "unfreeze")
    lost = kept.node(kept.wait_master(agreed_on=[node.number for node in rest]))
    [last] = others(kept, master.number, lost.number)
    follow(last, "freeze")
    lost.power_off()
    wait_verdict(last, "critical", "corosync-quorumtool -e")
    follow(last, "quorum")
    follow(last, "wait-for-all")
    kept.wait(last.is_active, LIMIT_S, "the daemon runs")
    assert "unfreeze --alone" in said(last, "unfreeze", status=REFUSED)
    assert "--alone --yes" in said(last, "unfreeze", "--alone", status=FAILED)
    follow(last, "alone")
    kept.wait(lambda: has_address(last), LIMIT_S, "it serves")
    since = now()
    for node in (master, lost):
        follow(node, "forget")
        node.power_on(wait=False)
    kept.wait_ring()
    assert wait_settled(kept) == last and not aborted(kept.nodes, since)
    follow(last, "leave")
    assert not last.is_active() and kept.wait_master(agreed_on=[master.number, lost.number])
