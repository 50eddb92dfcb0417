"""What `duskvalectl doctor` finds on real nodes, healthy and broken."""

import json

import pytest
from support import AS_NOBODY

from lab.paths import COROSYNC, RUN_DIRECTORY

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
