"""The example steps on real nodes. That of the services is tried in test_keeper.py."""

import sys

from support import lines, others, steps_held, take_over

from lab.cluster import CHECKOUT
from lab.examples import (ADDRESS, ADDRESS_6, SERVICE, STORAGE, VIRTUAL_ADDRESS, install,
                          install_address)
from lab.network import link_address_of
from lab.paths import RUN_DIRECTORY

LIMIT = 10.0
SHARED = "/srv/shared"
ASK = f"""
from socket import AF_INET, AF_INET6, SOCK_DGRAM, socket
socket(AF_INET, SOCK_DGRAM).sendto(b'?', ('{ADDRESS}', 9))
socket(AF_INET6, SOCK_DGRAM).sendto(b'?', ('{ADDRESS_6}', 9))
"""
HIDE_ARPING = 'mount --bind /dev/null "$(command -v arping)" && exec "$@"'

# Data that one node at a time may hold: a link in a directory that all nodes see names that node.
DATA = """
cd /srv/shared
holds() { [ "$(readlink holder)" = "$(uname -n)" ]; }
promote() { uname -n >>attempts; holds || ln -s "$(uname -n)" holder; }
demote() { ! holds || rm holder; }
"""


def holders(lab):
    """The nodes that have the virtual address."""
    show = ["ip", "-oneline", "-4", "address"]
    return [node for node in lab.nodes if f" {ADDRESS}/" in node.run(show).stdout]


def sends_to(machine, node):
    """Does the machine's kernel take the node for the one with the virtual addresses?"""
    entries = [machine.run(["ip", "neighbour", "show", "to", address]).stdout
               for address in (ADDRESS, ADDRESS_6)]
    return all(f" lladdr {link_address_of(node.number)} " in entry for entry in entries)


def wait_sent_to(lab, node, *neighbours):
    """Of what they know nothing ages here, so it is an announcement that is waited for."""
    for machine in neighbours:
        lab.wait(lambda: sends_to(machine, node), LIMIT, f"{machine} goes to {node}")


def resolve(lab, machine, node):
    """The machine asks who has the virtual addresses, and it is the node."""
    machine.run(["ip", "-6", "route", "replace", f"{ADDRESS_6}/128", "dev", "eth0"])
    for address in ADDRESS, ADDRESS_6:
        machine.run(["ip", "neighbour", "flush", "to", address])
    machine.run([sys.executable, "-c", ASK])
    wait_sent_to(lab, node, machine)


def announces(node):
    """Is the node still busy with the announcements of an earlier start?"""
    find = f"grep -lsx {VIRTUAL_ADDRESS[:15]} /proc/[0-9]*/comm"  # The kernel cuts it.
    return node.run(["sh", "-c", find], check=False).stdout != ""


def test_neighbours_follow_the_virtual_address(lab):
    client = lab.client()
    for node in lab.nodes:
        install_address(node)
    lab.start()
    first = lab.node(lab.wait_master())
    second, third = others(lab, first.number)
    for machine in client, third:
        resolve(lab, machine, first)
    take_over(lab, second.number)
    wait_sent_to(lab, second, client, third)
    take_over(lab, first.number)
    wait_sent_to(lab, first, client, third)
    # The second node was about to announce it twice more.
    while announces(second):
        assert sends_to(client, first)
    lab.wait_master()
    assert holders(lab) == [first]
    # A sequence that is late must not start what the role no longer wants.
    second.run([f"{RUN_DIRECTORY}/{VIRTUAL_ADDRESS}", "start"])
    assert holders(lab) == [first]
    # All of them also ran "stop" without the address.
    ends = [entry for node in lab.nodes for entry in node.signals if "RunstepsDone" in entry.name]
    assert {errors for _, _, [errors] in ends} == {0}


def test_data_is_promoted_when_the_old_master_has_let_go(lab):
    step = f"{RUN_DIRECTORY}/{STORAGE}"

    shared = lab.node(1).file(SHARED)
    for file in shared.iterdir():
        file.unlink()

    def holder():
        return (shared / "holder").readlink().name

    def attempts(node):
        return (shared / "attempts").read_text(encoding="utf-8").split().count(node.name)

    def end_of_step(node, action, status):
        return node.wait_signal("NotifyRunstepEnd", step, action, status, since=since)

    for node in lab.nodes:
        install(node, STORAGE, DATA)
    lab.start()
    old = lab.node(lab.wait_master())
    new, third = others(lab, old.number)
    assert holder() == old.name
    before = attempts(new)
    with steps_held(old):  # A service that still stops, as it uses the data.
        since = take_over(lab, new.number)
        lab.wait(lambda: attempts(new) > before + 2, LIMIT, f"{new} tries again")
        assert holder() == old.name
        assert "NotifyRunstepEnd" not in [entry.name for entry in new.signals_since(since)]
    end_of_step(old, "stop", 0)
    end_of_step(new, "start", 0)
    assert holder() == new.name

    install(new, STORAGE, DATA + "demote() { echo 'in use' >&2; return 1; }\n")
    install(third, STORAGE, DATA + "PATIENCE=1\n")
    since = take_over(lab, third.number)
    end_of_step(new, "stop", 1 << 8)
    assert lines(new, "in use", since)
    assert lines(new, f"{step}: not demoted: another node cannot be promoted now", since)
    end_of_step(third, "start", 1 << 8)
    assert lines(third, f"{step}: not promoted within 1 s: ln: failed to create symbol", since)
    since = take_over(lab, new.number)
    end_of_step(new, "start", 0)
    assert holder() == new.name


def test_corosync_runs_with_the_template(make_lab):
    template = (CHECKOUT / "data/examples/corosync/three-nodes.conf").read_text("utf-8")
    lab = make_lab(nodes=3, keepers=(1, 2, 3), template=template)
    try:
        lab.wait_master()
        for node in lab.nodes:
            links = node.run(["corosync-cfgtool", "-n"]).stdout
            assert links.count(" enabled connected") == 4, links  # Two, to each of two nodes.
            assert "Quorate:          Yes" in node.run(["corosync-quorumtool"], check=False).stdout
    finally:
        lab.down()


def test_steps_refuse_what_they_cannot_do(lab):
    node = lab.node(1)

    def assert_refused(step, arguments, status, reason, through=()):
        path = f"{RUN_DIRECTORY}/{step}"
        result = node.run([*through, path, *arguments], check=False)
        assert (result.returncode, result.stdout) == (status, "")
        assert reason in result.stderr

    address = f"ADDRESS={ADDRESS}/32\n"
    for step, settings, status, reason in (
        (STORAGE, "", 6, "define promote"),
        (STORAGE, "promote() { :; }\n", 6, "define demote"),
        (SERVICE, "", 6, "set UNITS"),
        (VIRTUAL_ADDRESS, "INTERFACE=eth0\n", 6, "set ADDRESS"),
        (VIRTUAL_ADDRESS, address, 6, "set INTERFACE"),
        (VIRTUAL_ADDRESS, address + "INTERFACE=none0\n", 1, "none0"),
    ):
        install(node, step, settings)
        for action in "start", "stop":
            assert_refused(step, [action], status, reason)
    install(node, VIRTUAL_ADDRESS, address + "INTERFACE=eth0\n")
    assert_refused(VIRTUAL_ADDRESS, ["restart"], 2, "start|stop\n")
    without_arping = ["unshare", "--mount", "sh", "-c", HIDE_ARPING, "sh"]
    assert_refused(VIRTUAL_ADDRESS, ["start"], 5, "but not announced: arping", without_arping)
    assert holders(lab) == [node]
