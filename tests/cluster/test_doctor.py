"""What `duskvalectl doctor` finds on real nodes, healthy and broken."""

import json

from support import AS_WATCHER

from lab.paths import RUN_DIRECTORY

OK, WARNING, CRITICAL, UNKNOWN = range(4)


def doctor(node, *command):
    """The exit status, and what is not in order: {area: [(level, text), ...]}."""
    result = node.run([*command, "duskvalectl", "doctor", "--json"], check=False)
    found = {}
    for finding in json.loads(result.stdout)["findings"]:
        if finding["level"] not in ("ok", "note"):
            found.setdefault(finding["area"], []).append((finding["level"], finding["text"]))
    return result.returncode, found


def test_doctor_finds_what_is_broken_and_nothing_else(lab):
    node, other, third = lab.nodes
    for member in lab.nodes:
        member.write_step("10-nothing.run", "#!/bin/sh\n")
        member.add_device("0000:01")
    lab.start()
    lab.wait_master()
    for member in lab.nodes:
        assert doctor(member) == (OK, {})
    status, found = doctor(node, *AS_WATCHER)
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
