"""The keepers on three nodes, with the virtual address: the role stays, moves and is given up as
it must."""

import random
import re
import signal
import time

import pytest
from support import (FAILS, LIMIT_S, OBJECT, aborted, follow, lines, others, said,
                     wait_settled, wait_verdict, write)

from lab.examples import EXAMPLES, SERVICE, install
from lab.holders import Watch, has_address, overlap
from lab.paths import COROSYNC, DAEMON, KEEPER, RUN_DIRECTORY, SETTINGS, WATCH_DIRECTORY
from lab.waiting import now, wait_until

WATCH = "90-virtual-address.watch"
STATE = "/var/lib/duskvale-keeper/state"
UNIT = "example.service"
# token + consensus, and what the keeper may need beyond it.
STALL_LIMIT_S = 1.0 + 1.2 + 2.0


def wait_why(node, reason):
    """Until `why` on the node names it: the journal is a moment behind."""
    wait_until(lambda: re.search(reason, said(node, "why")), LIMIT_S,
               f"why on {node} names {reason}", explain=lambda: said(node, "why"))


def move(lab, target):
    """Asked for on another node, whoever is master."""
    said(others(lab, target.number)[-1], "move", target.name, "--wait")
    assert lab.masters() == {node.number: target.id for node in lab.nodes}


def masters_since(lab, since):
    """The masters that were applied on any node since then."""
    return {found.arguments[0] for node in lab.nodes for found in node.signals_since(since)
            if found.name == "NotifyNewMaster"}


def test_master_stays_when_slaves_restart(kept):
    master = wait_settled(kept)
    since = now()
    for slave in others(kept, master.number) * 2:
        follow(slave, "start-again")
        assert kept.wait_master() == master.number
    slave.reboot()
    kept.wait_ring()
    assert wait_settled(kept) == master
    # A daemon that joins may name itself, until it has heard the others.
    assert masters_since(kept, since) <= {master.id, slave.id}
    assert not aborted(kept.nodes, since)


def test_moves_hold(kept):
    since = now()
    follow(kept.node(3), "move")
    assert set(kept.masters().values()) == {2}
    follow(kept.node(3), "move-back")
    assert set(kept.masters().values()) == {1}
    for target in kept.nodes[1:]:
        move(kept, target)
    slave = kept.node(1)
    slave.systemctl("restart", DAEMON)  # At once: nothing has settled yet.
    move(kept, kept.node(2))
    assert wait_settled(kept) == kept.node(2)
    assert not aborted(kept.nodes, since)


def test_stop_of_the_master_hands_over(kept):
    master = wait_settled(kept)
    since = now()
    master.stop()
    rest = others(kept, master.number)
    [left] = {node.wait_signal("NotifyLeft", master.id, since=since).time for node in rest[:1]}
    heir = kept.node(kept.wait_master(agreed_on=[node.number for node in rest]))
    taken = heir.wait_signal("NotifyNewMaster", heir.id, since=since).time
    assert taken < left, "it was elected after the stop"
    for node in kept.nodes:
        wait_why(node, f"MOVE: .* the daemon of node {master.id} .* is being stopped")
    master.start()
    assert wait_settled(kept) == heir


def test_all_stop_at_once_without_passing_the_role_around(kept):
    wait_settled(kept)
    since = now()
    stops = [node.popen(["systemctl", "stop", DAEMON]) for node in kept.nodes]
    assert [stop.wait(30) for stop in stops] == [0, 0, 0]
    assert now() - since < 6
    for node in kept.nodes:
        node.sync()
    assert len(masters_since(kept, since)) <= 1


def test_cut_master_gives_the_address_up(kept):
    master = wait_settled(kept)
    rest = others(kept, master.number)
    with Watch(kept.nodes) as watch:
        wall, since = time.time(), now()
        master.cut()
        heir = kept.node(kept.wait_master(agreed_on=[node.number for node in rest]))
        kept.wait(lambda: has_address(heir) and not has_address(master), LIMIT_S, "it has moved")
        wait_verdict(master, "critical", "corosync-quorumtool -e")
        wait_verdict(heir, "warning", "is missing")
        wait_why(master, "killed by signal 9.*QUORUM: lost")
        kept.heal()
        kept.wait_ring()
        assert wait_settled(kept) == heir
        twice, holders = overlap([master.number], watch.changes(), wall, time.time())
    assert twice == 0 and holders == {heir.number}
    assert not aborted(rest, since)
    wait_verdict(master, "ok", f"({heir}) is master")


def test_watch_starts_a_service_again(kept):
    master = wait_settled(kept)
    for node in kept.nodes:
        write(node, f"/run/systemd/system/{UNIT}", "[Service]\nExecStart=/bin/sleep infinity\n")
        install(node, SERVICE, f'UNITS="{UNIT}"\n')
        program = "watch.d/50-service.watch"
        node.write_watch("50-service.watch", node.file(f"{EXAMPLES}/{program}").read_text())
        node.systemctl("daemon-reload")
    move(kept, master := others(kept, master.number)[0])
    kept.wait(lambda: master.is_active(UNIT), LIMIT_S, "the service runs")
    assert wait_settled(kept) == master
    since = now()
    master.kill(unit=UNIT)
    master.wait_log("WATCH: .*is (inactive|failed)", limit=5.0 + 1.0, since=since, unit=KEEPER)
    kept.wait(lambda: master.is_active(UNIT), LIMIT_S, "the service runs again")
    assert wait_settled(kept) == master
    # Again within ten minutes: it cannot be relied on, and another node serves.
    master.kill(unit=UNIT)
    heir = kept.wait(lambda: next((node for node in kept.nodes if node.is_active(UNIT)), None),
                     LIMIT_S, "another node serves")
    for node in kept.nodes:
        wait_why(node, f"MOVE: .* node {master.id} .* is not fit")
    assert heir != master and wait_settled(kept) == heir
    wait_verdict(heir, "warning", "could not take over")
    follow(master, "fit")
    wait_verdict(heir, "ok")
    for node in kept.nodes:
        node.systemctl("stop", UNIT)


def test_failed_start_moves_the_role_once(kept):
    first = wait_settled(kept)
    second, third = others(kept, first.number)
    second.write_step("50-fails.run", FAILS)
    said(first, "move", second.name)
    heir = kept.wait(lambda: next((node for node in (first, third) if has_address(node)), None),
                     LIMIT_S, "a fit node serves")
    assert wait_settled(kept) == heir
    wait_verdict(heir, "warning", "50-fails.run failed with status 3")
    # Nobody can serve: the role rests, and everybody says so.
    for node in (first, third):
        node.write_step("50-fails.run", FAILS)
    heir.systemctl("restart", DAEMON)
    kept.wait(lambda: all("unfit=start" in node.file(STATE).read_text() for node in kept.nodes),
              LIMIT_S, "all have tried")
    kept.wait_master()
    for node in kept.nodes:
        wait_verdict(node, "critical", "duskvalectl fit")
    tired = now()
    time.sleep(6)  # A request that was refused would be made again after 5 s.
    assert not masters_since(kept, tired)
    for node in kept.nodes:
        node.file("/usr/share/duskvale/run.d/50-fails.run").unlink()
        follow(node, "fit")
    follow(kept.node(kept.wait_master()), "steps-again")
    wait_verdict(first, "ok")


@pytest.mark.parametrize("unit", [DAEMON, COROSYNC])
def test_stalled_master_stops_its_steps(kept, unit):
    master = wait_settled(kept)
    rest = others(kept, master.number)
    since = now()
    master.pause(unit)
    assert master.wait_exit(since).status == signal.SIGKILL
    kept.wait(lambda: not has_address(master), 5.0, "its address is gone")
    assert now() - since < STALL_LIMIT_S + 1.0  # Of which a second is for this machine.
    kept.wait(lambda: any(map(has_address, rest)), LIMIT_S, "another node serves")
    if unit == COROSYNC:
        master.resume(COROSYNC)
    kept.wait_ring()
    heir = wait_settled(kept)
    assert heir in rest
    assert [node for node in kept.nodes if has_address(node)] == [heir]
    assert not aborted(rest, since)


def test_keeper_may_hang_or_be_killed(kept):
    master = wait_settled(kept)
    since = now()
    for node in kept.nodes:
        node.kill(unit=KEEPER)
    kept.wait(lambda: all(node.is_active(KEEPER) for node in kept.nodes), LIMIT_S, "they are back")
    assert wait_settled(kept) == master
    master.pause(KEEPER)
    begun = now()
    master.stop()
    assert now() - begun < 2.0 + 1.0
    master.resume(KEEPER)
    master.start()
    wait_settled(kept)
    assert not aborted(kept.nodes, since)
    # As a kill or a full disk between the daemon's truncation of a file and its write leaves it.
    master = wait_settled(kept)
    said(master, "freeze", "disk swap", "--wait")
    for node in kept.nodes:
        kept.wait(lambda: "disk swap" in node.file(STATE).read_text(), LIMIT_S, "it remembers")
        write(node, f"{SETTINGS}/frozen_master", "")
        node.kill()
    kept.wait(lambda: all(node.is_active() for node in kept.nodes), LIMIT_S, "they are back")
    for node in kept.nodes:
        assert (node.get("FrozenMaster"), node.get("FrozenMasterReason")) == (
            master.id, "disk swap"), node
    said(master, "unfreeze", "--wait")
    # A node without a keeper takes part; stay says that it does nothing.
    first, second, _ = kept.nodes
    first.systemctl("stop", KEEPER)
    stay = ["busctl", "get-property", *OBJECT, "Stay"]
    kept.wait(lambda: "2 of 3 members" in second.run(stay).stdout, 15.0 + LIMIT_S, "stay is off")
    first.stop()
    first.start()
    kept.wait_master()
    follow(first, "keeper")
    wait_settled(kept)


def test_keepers_are_closed_and_give_their_programs_what_they_need(kept):
    target = others(kept, wait_settled(kept).number)[0]
    # In tenths; lower is more closed.
    target.run(["systemd-analyze", "security", "--offline=true", "--threshold=40",
                target.show("FragmentPath", KEEPER)])
    kept_closed = (SETTINGS, RUN_DIRECTORY, "/var/lib/duskvale-keeper")
    open_to_others = target.run(["find", *kept_closed, "!", "-type", "l", "(", "-perm", "/022",
                                 "-o", "!", "-user", "root", ")"])
    assert open_to_others.stdout == ""
    target.write_watch("50-says.watch", "#!/bin/sh\nexec >/tmp/part; env | grep -v ^_= | sort\n"
                       "echo $(umask) $(id -u) $(pwd)\nmv /tmp/part /tmp/says\n")
    # Links that lead nowhere, one in the place of the setting that is written now.
    for link in (f"{WATCH_DIRECTORY}/60-loop.watch", f"{SETTINGS}/preferred_master"):
        target.file(link).unlink(missing_ok=True)
        target.file(link).symlink_to(link)
    move(kept, target)
    target.wait_log("WATCH: 60-loop.watch: .* cannot be run, which counts for nothing", unit=KEEPER)
    said = target.file(f"/proc/{target.pid(KEEPER)}/root/tmp/says")
    kept.wait(said.exists, LIMIT_S, "the program has run")
    *variables, rest = said.read_text(encoding="utf-8").splitlines()
    assert "LC_ALL=C.UTF-8" in variables and rest == "0077 0 /"
    assert not [line for line in variables if line.startswith(("LD_", "BASH_ENV", "PYTHON"))]
    assert wait_settled(kept) == target
    assert lines(target, f"Failed opening {SETTINGS}/preferred_master")


def test_forged_texts_run_nothing_but_a_nodes_own_steps(kept):
    liar = others(kept, wait_settled(kept).number)[0]
    since = now()
    genuine = [found.arguments[0] for node in kept.nodes for found in node.signals
               if found.name == "NotifyGotMessage"]
    lies = random.Random(1)

    def lie(word):
        return '"$(touch /run/owned)"' if word[0].startswith('"') else str(lies.randint(0, 4))

    for text in lies.choices(genuine, k=150):
        name, version, report = text.split(" ", 2)
        forged = re.sub(r'\d+|"[^"]*"', lie, report)
        liar.call("SendMessage", f"{name} {version} {forged}")
    liar.systemctl("restart", KEEPER)  # It asks all for the truth.
    master = wait_settled(kept)
    for node in kept.nodes:
        assert not node.file("/run/owned").exists()
        assert not re.search(r"^unfit=.", node.file(STATE).read_text(), re.MULTILINE)
        assert not [end for end in node.exits(since) if end.status == signal.SIGKILL]
        wait_verdict(node, "ok", f"({master}) is master")
