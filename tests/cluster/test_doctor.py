"""What `duskvalectl doctor` finds on real nodes, healthy and broken."""

import json

import pytest
from support import AS_NOBODY

from lab.bus import NAME
from lab.paths import BUS_POLICIES, COROSYNC, RUN_DIRECTORY

OK, WARNING, CRITICAL, UNKNOWN = range(4)


def doctor(node, *command):
    """The exit status, and what is not in order: {area: [(level, text), ...]}."""
    result = node.run([*command, "duskvalectl", "doctor", "--json"], check=False)
    found = {}
    for finding in json.loads(result.stdout)["findings"]:
        if finding["level"] not in ("ok", "note"):
            found.setdefault(finding["area"], []).append((finding["level"], finding["text"]))
    return result.returncode, found


@pytest.fixture(name="healthy")
def _healthy(lab):
    for node in lab.nodes:
        node.write_step("10-nothing.run", "#!/bin/sh\n")
        node.add_device("0000:01")
    lab.start()
    lab.wait_master()
    return lab


@pytest.mark.packaged
def test_doctor_finds_what_is_broken_and_nothing_else(healthy):
    node, other, third = healthy.nodes
    for member in healthy.nodes:
        assert doctor(member) == (OK, {})
    status, found = doctor(node, *AS_NOBODY)
    assert status == UNKNOWN and list(found) == ["corosync"]

    step = node.file(f"{RUN_DIRECTORY}/10-nothing.run")
    step.chmod(0o644)
    node.remove_device("0000:01")
    status, found = doctor(node)
    assert status == CRITICAL
    assert found["steps"] == [("critical", "10-nothing.run cannot be run: it is not executable")]
    assert list(found) == ["steps", "devices"]
    assert doctor(other) == (OK, {})

    third.stop()
    assert doctor(other) == (
        WARNING, {"corosync": [("warning", "in the ring, but without a daemon: node 3")]}
    )
    status, found = doctor(third)
    assert status == CRITICAL and list(found) == ["corosync", "daemon", "unit"]


def test_doctor_sees_a_lost_policy_before_and_after_the_bus_reads_it(healthy):
    node = healthy.node(1)
    policy = node.file(f"{BUS_POLICIES}/{NAME}.conf")
    text = policy.read_bytes()
    reload_bus = ["dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus",
                  "/org/freedesktop/DBus", "org.freedesktop.DBus.ReloadConfig"]
    policy.unlink()
    try:
        # Whether the bus has seen that by itself is not to be foretold.
        status, found = doctor(node)
        assert status == CRITICAL and "not installed" in found["bus"][0][1]
        node.run(reload_bus)
        status, found = doctor(node)
        assert status == CRITICAL and list(found) == ["bus", "daemon"]
        assert [line.partition(":")[0] for _, line in found["bus"]] == [
            "the bus policy is not installed", "the policy is not in effect",
        ]
    finally:
        policy.write_bytes(text)
        node.run(reload_bus)
    assert doctor(node) == (OK, {})


def test_doctor_tells_a_dead_corosync_from_a_stalled_one(healthy):
    node, other, _ = healthy.nodes
    node.systemctl("stop", COROSYNC)
    status, found = doctor(node)
    assert status == CRITICAL
    assert found["corosync"] == [("critical", "corosync is not running")]
    healthy.wait(lambda: node.id not in other.ring(), 20.0, "the others have seen it")
    assert doctor(other) == (
        WARNING,
        {"corosync": [("warning", "in the nodelist, but not in the ring with this node: node 1")]},
    )
    other.pause(COROSYNC)  # The next reset lets it go on.
    status, found = doctor(other)
    assert status == CRITICAL
    assert found["corosync"][0][1] == (
        "corosync is running but does not answer: it is stopped or starved"
    )
